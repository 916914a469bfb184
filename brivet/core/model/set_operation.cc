#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/internal/retry.h"
#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/core/model/operations.h"

namespace brivet {

namespace {

using internal::Read;

struct SetRun : internal::Run {
  SetRun(const SetOperation& op, Observer observer, std::uint64_t streamID, std::string pathsText)
      : Run(op.model(), std::move(observer), streamID), operation(op), paths(std::move(pathsText)) {}

  const SetOperation operation;
  const std::string paths;  // the written key paths (signposts)
  JSONValue written;        // V: the written paths read back after the local write
  std::vector<CacheProtocol::NodeRestore> rollback;  // withRollback: how to undo the local write
};

// The literal paths of the leaves of a set's graph.
void leafPaths(const JSONGraph& graph, std::vector<std::string>& prefix, std::vector<std::vector<std::string>>& out) {
  if (graph.isLeaf()) {
    out.push_back(prefix);
    return;
  }
  if (graph.isObject()) {
    graph.forEach([&](std::string_view key, const JSONGraph& child) {
      prefix.emplace_back(key);
      leafPaths(child, prefix, out);
      prefix.pop_back();
    });
    return;
  }
  const std::vector<JSONGraph> elements = graph.elements();
  for (std::size_t i = 0; i < elements.size(); ++i) {
    prefix.push_back(std::to_string(i));
    leafPaths(elements[i], prefix, out);
    prefix.pop_back();
  }
}

// What the cache holds at each path now (after every write queued before).
std::vector<std::optional<JSONGraph>> nodesAt(const CacheProtocol& cache,
                                              const std::vector<std::vector<std::string>>& paths) {
  internal::awaitEarlierWrites();
  const JSONGraph root = cache.jsonGraph();
  std::vector<std::optional<JSONGraph>> nodes;
  nodes.reserve(paths.size());
  for (const auto& path : paths) nodes.push_back(nodeAt(root, path));
  return nodes;
}

// Merges `graph` and reads the written paths back, inside a Cache interval.
Read writeAndRead(const SetRun& run, const JSONGraph& graph) {
  const std::uint64_t cacheID =
      internal::beginChildInterval(internal::cacheLog(), run.streamID(), "method=%@, path=%@", "set", run.paths);
  CacheProtocol& cache = *run.model().cache();
  cache.merge(graph);
  Read read = internal::readCache(cache, run.operation.pathTree(), /*checkExpiry=*/false);
  internal::endInterval(internal::cacheLog(), cacheID, "miss=%lu", internal::hasTopLevelEntry(read.missing) ? 1u : 0u);
  return read;
}

void handleResponse(SetRun& run, const BrivetResult<DataSourceResponse>& result) {
  if (const DataSourceResponse* response = result.value()) {
    Read read = writeAndRead(run, response->jsonGraph);
    run.accumulate(read.error);
    // A progressive subscriber already holds the optimistic value; an answer that keeps it is not news.
    if (!(run.operation.progressive() && read.value == run.written)) run.progress(read.value, response->context);
  } else if (const StreamError* error = result.error()) {
    // Written before the failure is delivered, so that a get issued after it reads the old values.
    if (!run.rollback.empty()) run.model().cache()->restore(std::move(run.rollback));
    run.dataSourceFailed(*error);
  } else {
    run.dataSourceCompleted();
  }
}

void runSet(const SetOperation& operation, std::uint64_t streamID,
            const std::shared_ptr<internal::SubscriptionSlot>& slot, Stream<JSONEnvelope>::Observer observer) {
  if (slot->isCancelled()) return;  // cancelled before it ran: nothing is written
  auto run = std::make_shared<SetRun>(operation, std::move(observer), streamID,
                                      internal::tracedKeyPaths(operation.pathTree()));
  const InternalModel& model = operation.model();

  const bool completed = model.dataSource() == nullptr;
  std::vector<std::vector<std::string>> written;
  std::vector<std::optional<JSONGraph>> before;
  if (operation.rollbackOnFailure() && !completed) {
    std::vector<std::string> prefix;
    leafPaths(operation.jsonGraph(), prefix, written);
    before = nodesAt(*model.cache(), written);
  }
  Read read = writeAndRead(*run, operation.jsonGraph());
  if (!written.empty()) {
    std::vector<std::optional<JSONGraph>> after = nodesAt(*model.cache(), written);
    for (std::size_t i = 0; i < written.size(); ++i) {
      // A node the write left as it was needs no undoing.
      if (!after[i] || (before[i] && *before[i] == *after[i])) continue;
      run->rollback.push_back({std::move(written[i]), std::move(*after[i]), std::move(before[i])});
    }
  }
  if (completed || operation.progressive()) {
    run->progress(read.value);
    run->progressEvent(operation.progressive(), completed);
    if (completed) {
      run->finishFromCache(read.error);
      return;
    }
  }
  run->written = std::move(read.value);
  internal::sendRequest<DataSourceResponse>(
      run, slot, "set", run->paths,
      [dataSource = model.dataSource(), graph = operation.jsonGraph()] { return dataSource->set(graph); },
      [run](const BrivetResult<DataSourceResponse>& result) { handleResponse(*run, result); });
}

}  // namespace

SetOperation::SetOperation(InternalModel model, JSONGraph jsonGraph, bool progressive, bool rollbackOnFailure)
    : model_(std::move(model)),
      jsonGraph_(std::move(jsonGraph)),
      pathTree_(PathTree::fromGraph(jsonGraph_)),
      progressive_(progressive),
      rollbackOnFailure_(rollbackOnFailure) {}

SetOperation SetOperation::progressively() const { return SetOperation(model_, jsonGraph_, true, rollbackOnFailure_); }
SetOperation SetOperation::withRollback() const { return SetOperation(model_, jsonGraph_, progressive_, true); }

std::shared_ptr<Stream<JSONEnvelope>> SetOperation::asStream() const {
  const std::uint64_t streamID =
      internal::beginInterval(internal::streamLog(), "method=%@, progressive=%lu, refresh=%lu, path=%@", "set",
                              progressive_ ? 1u : 0u, 0u, internal::tracedKeyPaths(pathTree_));
  auto slot = std::make_shared<internal::SubscriptionSlot>();
  return Stream<JSONEnvelope>::create(
      [operation = *this, streamID, slot](Stream<JSONEnvelope>::Observer observer) {
        runSet(operation, streamID, slot, std::move(observer));
      },
      [slot] { slot->cancel(); }, /*isUnsubscribed=*/false, DispatchQueue::main(), model_.operationQueue());
}

}  // namespace brivet
