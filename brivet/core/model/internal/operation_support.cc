#include "brivet/core/model/internal/operation_support.h"

#include <string>
#include <vector>

namespace brivet::internal {

namespace {
const SignpostLog& makeLog(std::string_view category) {
  return *new SignpostLog(category, signpostsEnabledForProcess());
}
}  // namespace

const SignpostLog& streamLog() {
  static const SignpostLog& log = makeLog(BrivetSignpost::kStream);
  return log;
}
const SignpostLog& cacheLog() {
  static const SignpostLog& log = makeLog(BrivetSignpost::kCache);
  return log;
}
const SignpostLog& dataSourceLog() {
  static const SignpostLog& log = makeLog(BrivetSignpost::kDataSource);
  return log;
}

std::string joinedKeyPaths(const PathTree& tree) {
  // A trace names the first key paths only: an answer's paths may multiply out to millions.
  constexpr std::size_t kMaxTracedKeyPaths = 1000;
  std::string out;
  const std::vector<std::string> keyPaths = tree.keyPathStrings(kMaxTracedKeyPaths + 1);
  for (std::size_t i = 0; i < keyPaths.size() && i < kMaxTracedKeyPaths; ++i) {
    if (!out.empty()) out += ", ";
    out += keyPaths[i];
  }
  if (keyPaths.size() > kMaxTracedKeyPaths) out += ", ...";
  return out;
}

std::string tracedKeyPaths(const PathTree& tree) {
  return signpostsEnabledForProcess() ? joinedKeyPaths(tree) : std::string();
}

bool hasTopLevelEntry(const PathTree& tree) {
  switch (tree.kind()) {
    case PathTree::Kind::Object: return !tree.entries().empty();
    case PathTree::Kind::KeySet: return !tree.keys().empty();
    case PathTree::Kind::Target:
    case PathTree::Kind::Self: return false;
  }
  return false;
}

namespace {
Read toRead(Result<CacheValues, BrivetError>&& result) {
  Read read;
  if (result.ok()) {
    CacheValues& values = result.value();
    read.value = std::move(values.value);
    read.missing = std::move(values.missingPathTree);
    read.missingOptimized = std::move(values.missingOptimizedPathTree);
  } else {
    read.error = std::move(result).error();
  }
  return read;
}
}  // namespace

// Waits for every write requested before it (earlier barriers on the cache
// queue). The read itself runs afterwards on the caller's thread: reads take
// the cache's current state without the queue, so a long walk never holds back
// the writes and reads of other models queued behind it.
void awaitEarlierWrites() {
  cacheQueue()->sync([] {});
}

Read readCache(const CacheProtocol& cache, const PathTree& tree, bool checkExpiry) {
  awaitEarlierWrites();
  return toRead(cache.getValues(tree, checkExpiry));
}

bool earlierWritesApplied() {
  return cacheQueue()->syncIfIdle([] {});
}

Read readCacheNow(const CacheProtocol& cache, const PathTree& tree, bool checkExpiry) {
  return toRead(cache.getValues(tree, checkExpiry));
}

CacheEnvelope snapshotCache(const CacheProtocol& cache, const std::optional<PathTree>& tree) {
  // The graph and the version come from one published state, so they belong together.
  awaitEarlierWrites();
  return cache.getCache(tree);
}

Read readGraph(const JSONGraph& graph, const PathTree& tree) {
  return toRead(getValues(graph, tree, /*checkExpiry=*/false));
}

void Run::progressEvent(bool progressive, bool completed) const {
  signpostEvent(streamLog(), streamID_, "progressive=%lu, completed=%lu", progressive ? 1u : 0u, completed ? 1u : 0u);
}

void Run::finishFromCache(const std::optional<BrivetError>& error) const {
  if (error) {
    fail("cache failure: ", *error, /*closeDataSource=*/false);
  } else {
    complete();
  }
}

void Run::complete() const {
  observer_(BrivetResult<JSONEnvelope>::complete());
  endInterval(streamLog(), streamID_, "status=%@", "Complete");
}

void Run::beginDataSource(std::string_view method, const std::string& path) {
  dataSourceID_ = beginChildInterval(dataSourceLog(), streamID_, "method=%@, path=%@", method, path);
}

void Run::beginDataSourceAttempt(std::string_view method, const std::string& path, std::int64_t attempt) {
  dataSourceID_ = beginChildInterval(dataSourceLog(), streamID_, "method=%@, path=%@, attempt=%lu", method, path,
                                     static_cast<unsigned long>(attempt));
}

void Run::attemptFailed(const StreamError& error, std::int64_t attempt, std::int64_t attempts,
                        std::chrono::milliseconds delay) {
  model_.logInfo("dataSource attempt " + std::to_string(attempt) + " of " + std::to_string(attempts) +
                 " failed, retrying in " + std::to_string(delay.count()) + " ms: " + error.text());
  endInterval(dataSourceLog(), dataSourceID_, "status=%@", "Error");
  dataSourceID_ = 0;
}

void Run::accumulate(const std::optional<BrivetError>& error) {
  if (!error) return;
  accumulated_ = accumulated_ ? accumulated_->combined(*error) : *error;
}

void Run::dataSourceFailed(const StreamError& error) const {
  fail("dataSource failure: ", error, /*closeDataSource=*/true);
}

void Run::dataSourceCompleted() const {
  if (accumulated_) {
    fail("dataSource failure: ", *accumulated_, /*closeDataSource=*/true);
    return;
  }
  observer_(BrivetResult<JSONEnvelope>::complete());
  endInterval(dataSourceLog(), dataSourceID_, "status=%@", "Complete");
  endInterval(streamLog(), streamID_, "status=%@", "Complete");
}

void Run::fail(const std::string& logPrefix, const StreamError& error, bool closeDataSource) const {
  model_.logError(logPrefix + error.text());
  observer_(BrivetResult<JSONEnvelope>::failure(error));
  if (closeDataSource) endInterval(dataSourceLog(), dataSourceID_, "status=%@", "Error");
  endInterval(streamLog(), streamID_, "status=%@", "Error");
}

}  // namespace brivet::internal
