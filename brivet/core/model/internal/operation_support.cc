#include "brivet/core/model/internal/operation_support.h"

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
  std::string out;
  for (const std::string& keyPath : tree.keyPathStrings()) {
    if (!out.empty()) out += ", ";
    out += keyPath;
  }
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

Read readCache(const CacheProtocol& cache, const PathTree& tree, bool checkExpiry) {
  std::optional<Result<CacheValues, BrivetError>> result;
  cacheQueue()->sync([&] { result.emplace(cache.getValues(tree, checkExpiry)); });
  return toRead(std::move(*result));
}

CacheEnvelope snapshotCache(const CacheProtocol& cache, const std::optional<PathTree>& tree) {
  std::optional<CacheEnvelope> envelope;
  cacheQueue()->sync([&] { envelope.emplace(cache.getCache(tree)); });
  return std::move(*envelope);
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
