#include "brivet/core/model/stream.h"

#include <string>

#include "brivet/platform/identifier.h"
#include "brivet/platform/uuid.h"

namespace brivet {

const std::shared_ptr<DispatchQueue>& taskQueue() {
  // Made on first use and never destroyed: blocks may still run while the process exits.
  static const auto* queue = new std::shared_ptr<DispatchQueue>(
      DispatchQueue::serial(std::string(kReverseDomain) + ".task.queue." + UUID::random().uuidString()));
  return *queue;
}

}  // namespace brivet
