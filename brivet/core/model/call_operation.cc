#include <memory>
#include <utility>

#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/internal/retry.h"
#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/core/model/operations.h"
#include "brivet/platform/signpost.h"

namespace brivet {

namespace {

using internal::Read;

// The function path as a key path ("lists.add"), for signposts.
std::string functionPathText(const std::vector<std::string>& path) {
  if (!signpostsEnabledForProcess()) return std::string();
  std::string out;
  for (const std::string& key : path) {
    if (!out.empty()) out += '.';
    out += key;
  }
  return out;
}

struct CallRun : internal::Run {
  CallRun(const CallOperation& operation, Observer observer, std::uint64_t streamID)
      : Run(operation.model(), std::move(observer), streamID), functionPath(functionPathText(operation.path())) {}

  const std::string functionPath;
};

void handleResponse(CallRun& run, const BrivetResult<DataSourceCallResponse>& result) {
  if (const DataSourceCallResponse* response = result.value()) {
    const std::uint64_t cacheID =
        internal::beginChildInterval(internal::cacheLog(), run.streamID(), "method=%@, path=%@", "call",
                                     run.functionPath);
    CacheProtocol& cache = *run.model().cache();
    // Dropped first, so values the answer brings for the same paths survive.
    if (response->invalidated) cache.invalidate(*response->invalidated);
    cache.merge(response->jsonGraph);
    Read read = internal::readCache(cache, response->pathTree, /*checkExpiry=*/false);
    run.accumulate(read.error);
    run.progress(std::move(read.value), response->context);
    internal::endInterval(internal::cacheLog(), cacheID, "miss=%lu",
                          internal::hasTopLevelEntry(read.missing) ? 1u : 0u);
  } else if (const StreamError* error = result.error()) {
    run.dataSourceFailed(*error);
  } else {
    run.dataSourceCompleted();
  }
}

void runCall(const CallOperation& operation, std::uint64_t streamID,
             const std::shared_ptr<internal::SubscriptionSlot>& slot, Stream<JSONEnvelope>::Observer observer) {
  if (slot->isCancelled()) return;  // cancelled before it ran: nothing is sent
  auto run = std::make_shared<CallRun>(operation, std::move(observer), streamID);
  const std::shared_ptr<DataSource>& dataSource = operation.model().dataSource();
  if (dataSource == nullptr) {
    run->complete();
    return;
  }
  internal::sendRequest<DataSourceCallResponse>(
      run, slot, "call", run->functionPath,
      [dataSource, operation] {
        return dataSource->call(operation.path(), operation.args(), operation.refSuffixes(), operation.thisPaths());
      },
      [run](const BrivetResult<DataSourceCallResponse>& result) { handleResponse(*run, result); });
}

}  // namespace

CallOperation::CallOperation(InternalModel model, std::vector<std::string> path, std::optional<JSONGraph> args,
                             std::optional<PathTree> refSuffixes, std::optional<PathTree> thisPaths)
    : model_(std::move(model)),
      path_(std::move(path)),
      args_(std::move(args)),
      refSuffixes_(std::move(refSuffixes)),
      thisPaths_(std::move(thisPaths)) {}

std::shared_ptr<Stream<JSONEnvelope>> CallOperation::asStream() const {
  const std::uint64_t streamID =
      internal::beginInterval(internal::streamLog(), "method=%@, progressive=%lu, refresh=%lu, path=%@", "call", 0u, 0u,
                              functionPathText(path_));
  auto slot = std::make_shared<internal::SubscriptionSlot>();
  return Stream<JSONEnvelope>::create(
      [operation = *this, streamID, slot](Stream<JSONEnvelope>::Observer observer) {
        runCall(operation, streamID, slot, std::move(observer));
      },
      [slot] { slot->cancel(); }, /*isUnsubscribed=*/false, DispatchQueue::main(), model_.operationQueue());
}

}  // namespace brivet
