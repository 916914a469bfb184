#include "brivet/platform/internal/blocking.h"

#include <string>

#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/key_path.h"

namespace brivet::internal {

std::optional<Error> refuseOnMainQueue(std::string_view operation) {
  if (!DispatchQueue::main()->isCurrent()) return std::nullopt;
  return accessError(AccessErrorCode::OnMainQueue,
                     std::string(operation) +
                         " was called on the main queue's own thread, which is the thread that would deliver its "
                         "answer: call it from another thread (or run the main queue on a MainQueueThread), or use "
                         "the completion or coroutine form here");
}

Error timedOut(std::string_view operation, std::chrono::milliseconds timeout) {
  return accessError(AccessErrorCode::TimedOut,
                     std::string(operation) + " timed out after " + std::to_string(timeout.count()) +
                         " ms (answers arrive on the main queue: is something running it?)");
}

}  // namespace brivet::internal
