#include <memory>
#include <utility>

#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/internal/retry.h"
#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/core/model/operations.h"

namespace brivet {

namespace {

using internal::Read;

// The state a get subscription keeps while it waits for the data source.
struct GetRun : internal::Run {
  GetRun(const GetOperation& op, Observer observer, std::uint64_t streamID)
      : Run(op.model(), std::move(observer), streamID), operation(op) {}

  const GetOperation operation;
  JSONValue cached;       // V
  PathTree missing;       // M
  std::string requested;  // O's key paths (signposts)
};

void handleResponse(GetRun& run, const BrivetResult<DataSourceResponse>& result) {
  if (const DataSourceResponse* response = result.value()) {
    const std::uint64_t cacheID =
        internal::beginChildInterval(internal::cacheLog(), run.streamID(), "method=%@, path=%@", "get", run.requested);
    Read read;
    if (run.operation.skipCacheMerge()) {
      read = internal::readGraph(response->jsonGraph, run.missing);
    } else {
      CacheProtocol& cache = *run.model().cache();
      cache.merge(response->jsonGraph);  // a barrier on the cache queue, so the read below sees it
      read = internal::readCache(cache, run.missing, /*checkExpiry=*/false);
    }
    run.accumulate(read.error);
    run.progress(JSONValue::merge(read.value, run.cached), response->context);
    internal::endInterval(internal::cacheLog(), cacheID, "miss=%lu",
                          internal::hasTopLevelEntry(read.missing) ? 1u : 0u);
  } else if (const StreamError* error = result.error()) {
    run.dataSourceFailed(*error);
  } else {
    run.dataSourceCompleted();
  }
}

void runGet(const GetOperation& operation, std::uint64_t streamID,
            const std::shared_ptr<internal::SubscriptionSlot>& slot, Stream<JSONEnvelope>::Observer observer) {
  if (slot->isCancelled()) return;  // nobody is listening any more
  auto run = std::make_shared<GetRun>(operation, std::move(observer), streamID);
  const InternalModel& model = operation.model();

  const std::uint64_t cacheID = internal::beginChildInterval(internal::cacheLog(), streamID, "method=%@, path=%@",
                                                             "get", internal::tracedKeyPaths(operation.pathTree()));
  Read read = internal::readCache(*model.cache(), operation.pathTree(), /*checkExpiry=*/true);
  PathTree missingOptimized = std::move(read.missingOptimized);
  run->missing = std::move(read.missing);
  if (operation.forceRefresh()) {
    run->missing = operation.pathTree();
    missingOptimized = operation.pathTree();
  }
  const bool miss = internal::hasTopLevelEntry(run->missing);
  const bool completed = !miss || model.dataSource() == nullptr;
  internal::endInterval(internal::cacheLog(), cacheID, "miss=%lu", miss ? 1u : 0u);

  if (completed || operation.progressive()) {
    run->progress(read.value);
    run->progressEvent(operation.progressive(), completed);
    if (completed) {
      run->finishFromCache(read.error);
      return;
    }
  }
  // A read error is not reported when a request follows: the answer replaces what the cache held.
  run->cached = std::move(read.value);
  run->requested = internal::tracedKeyPaths(missingOptimized);
  internal::sendRequest<DataSourceResponse>(
      run, slot, "get", run->requested,
      [dataSource = model.dataSource(), missingOptimized = std::move(missingOptimized)] {
        return dataSource->get(missingOptimized);
      },
      [run](const BrivetResult<DataSourceResponse>& result) { handleResponse(*run, result); });
}

// The quick part of a get, on the subscriber's thread while the model's
// operation queue is idle (Stream::subscribe holds it): answers a get that the
// cache holds completely, and leaves everything else to `runGet` on the
// operation queue. Of the two crossings a get makes, this saves the first;
// the second, onto the observe queue (the main queue), stays: events reach
// the subscriber there and never inside `subscribe`. What it answers is what
// `runGet` would: the same read, the same two events, the same signposts.
// It declines (having emitted nothing and started nothing) when
//  * the get refreshes or a cache write is still pending: it would have to
//    wait (for the data source, or for the write, which a read must see);
//  * the cache lacks something the data source could fetch: the request
//    starts from the operation queue, so a cancel right after subscribing
//    still stops it before it goes out;
//  * the read reports an error: the error goes to the app's logging delegate,
//    which is called from the operation queue;
//  * signposts are on: a declined read would leave a second Cache interval
//    in the trace.
bool answerFromCache(const GetOperation& operation, std::uint64_t streamID,
                     const std::shared_ptr<internal::SubscriptionSlot>& slot,
                     const Stream<JSONEnvelope>::Observer& observer) {
  if (slot->isCancelled()) return true;  // nobody is listening any more (as in runGet)
  if (operation.forceRefresh() || signpostsEnabledForProcess()) return false;
  const InternalModel& model = operation.model();
  if (!internal::earlierWritesApplied()) return false;
  Read read = internal::readCacheNow(*model.cache(), operation.pathTree(), /*checkExpiry=*/true);
  if (read.error || (internal::hasTopLevelEntry(read.missing) && model.dataSource() != nullptr)) return false;
  internal::Run run(model, observer, streamID);
  run.progress(std::move(read.value));
  run.progressEvent(operation.progressive(), /*completed=*/true);
  run.complete();
  return true;
}

}  // namespace

GetOperation::GetOperation(InternalModel model, PathTree pathTree, bool progressive, bool forceRefresh,
                           bool skipCacheMerge)
    : model_(std::move(model)),
      pathTree_(std::move(pathTree)),
      progressive_(progressive),
      forceRefresh_(forceRefresh),
      skipCacheMerge_(skipCacheMerge) {}

GetOperation GetOperation::progressively() const {
  return GetOperation(model_, pathTree_, true, forceRefresh_, skipCacheMerge_);
}
GetOperation GetOperation::refresh() const {
  return GetOperation(model_, pathTree_, progressive_, true, skipCacheMerge_);
}
GetOperation GetOperation::skipMerge() const {
  return GetOperation(model_, pathTree_, progressive_, forceRefresh_, true);
}

std::shared_ptr<Stream<JSONEnvelope>> GetOperation::asStream() const {
  const std::uint64_t streamID =
      internal::beginInterval(internal::streamLog(), "method=%@, progressive=%lu, refresh=%lu, path=%@", "get",
                              progressive_ ? 1u : 0u, forceRefresh_ ? 1u : 0u, internal::tracedKeyPaths(pathTree_));
  auto slot = std::make_shared<internal::SubscriptionSlot>();
  return Stream<JSONEnvelope>::create(
      [operation = *this, streamID, slot](Stream<JSONEnvelope>::Observer observer) {
        runGet(operation, streamID, slot, std::move(observer));
      },
      [slot] { slot->cancel(); }, /*isUnsubscribed=*/false, DispatchQueue::main(), model_.operationQueue(),
      [operation = *this, streamID, slot](const Stream<JSONEnvelope>::Observer& observer) {
        return answerFromCache(operation, streamID, slot, observer);
      });
}

}  // namespace brivet
