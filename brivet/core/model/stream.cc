#include "brivet/core/model/stream.h"

#include <string>

#include "brivet/platform/identifier.h"
#include "brivet/platform/uuid.h"

namespace brivet {

std::shared_ptr<DispatchQueue> makeTaskQueue() {
  return DispatchQueue::serial(std::string(kReverseDomain) + ".task.queue." + UUID::random().uuidString());
}

const std::shared_ptr<DispatchQueue>& taskQueue() {
  // Shared by every model of the process (see stream.h: only quick tasks run
  // here). Made on first use and never destroyed: blocks may still run while
  // the process exits.
  static const auto* queue = new std::shared_ptr<DispatchQueue>(makeTaskQueue());
  return *queue;
}

}  // namespace brivet
