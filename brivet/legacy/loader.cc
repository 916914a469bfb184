// BrivetModel: the request side (get options, data-source parameters, response handling).
#include <chrono>

#include "brivet/legacy/constants.h"
#include "brivet/legacy/internal/graph.h"
#include "brivet/legacy/internal/walk_budget.h"
#include "brivet/legacy/model.h"
#include "brivet/platform/json.h"
#include "brivet/platform/signpost.h"

namespace brivet {
namespace {

Error legacyError(std::string_view message) {
  return Error::withDescription(std::string(BRIVET_ERROR_DOMAIN), BRIVET_ERROR_CODE, std::string(message));
}

// An error without a message (a path-bound error that carries none).
Error bareLegacyError() { return Error(std::string(BRIVET_ERROR_DOMAIN), BRIVET_ERROR_CODE); }

// What a get or call ends with when reading its paths (or collecting their misses) went past the walk budget:
// key sets that fan out through cycles of references, or ranges over very large branches.
Error walkBudgetError(std::string_view method) {
  return legacyError("BrivetModel:" + std::string(method) +
                     " ERROR: Reading the paths went past the walk budget of the cache (" +
                     std::to_string(internal::kWalkStepBudget) + " steps plus " +
                     std::to_string(internal::kWalkStepsPerRequestKey) + " per key of the paths).");
}

// Completions reach the application on the main queue, asynchronously.
void deliver(const BrivetCompletion& completion, Object result, std::optional<Error> error) {
  if (!completion) return;
  DispatchQueue::main()->async(
      [completion, result = std::move(result), error = std::move(error)] { completion(result, error); });
}

Object stringArray(const std::vector<std::string>& strings) {
  std::vector<Object> elements(strings.begin(), strings.end());
  return Object::array(std::move(elements));
}

Object pqlArray(const std::vector<std::string>& keyPaths) {
  std::vector<Object> elements;
  elements.reserve(keyPaths.size());
  for (const std::string& keyPath : keyPaths) elements.emplace_back(convertKeyPathToPQL(keyPath));
  return Object::array(std::move(elements));
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The extra parameters a pre-get / pre-call hook returned, as a fresh mutable dictionary.
Object startParameters(const std::optional<Object>& hook) {
  if (hook && hook->isDictionary()) return hook->mutableCopy();
  return Object::mutableDictionary();
}

std::vector<const BrivetPathProtocol*> rawPaths(const auto& paths) {
  std::vector<const BrivetPathProtocol*> raw;
  raw.reserve(paths.size());
  for (const auto& path : paths) raw.push_back(path.get());
  return raw;
}

}  // namespace

struct BrivetModel::GetRequest {
  std::vector<std::string> keyPaths;
  std::vector<std::shared_ptr<BrivetPath>> paths;  // the non-empty key paths, read for the answer
  std::vector<std::string> missing;
  BrivetModelOption option = BrivetModelOptionDefault;
  std::string taskName;
  UUID uuid = UUID::random();
  BrivetCompletion completion;
  std::uint64_t streamSignpost = 0;
  std::uint64_t dataSourceSignpost = 0;
};

struct BrivetModel::CallRequest {
  std::string callKeyPath;
  std::string taskName;
  UUID uuid = UUID::random();
  BrivetCompletion completion;
  std::uint64_t streamSignpost = 0;
  std::uint64_t dataSourceSignpost = 0;
};

// --- Get ---

Object BrivetModel::getKeyPaths(const std::optional<std::vector<std::string>>& keyPaths,
                                const std::optional<std::string>& taskName, BrivetCompletion completion) {
  return getKeyPaths(keyPaths, BrivetModelOptionDefault, taskName, std::move(completion));
}

Object BrivetModel::getKeyPath(const std::string& keyPath, BrivetModelOption option,
                               const std::optional<std::string>& taskName, BrivetCompletion completion) {
  return getKeyPaths(std::vector<std::string>{keyPath}, option, taskName, std::move(completion));
}

Object BrivetModel::getKeyPath(const std::string& keyPath, const std::optional<std::string>& taskName,
                               BrivetCompletion completion) {
  return getKeyPaths(std::vector<std::string>{keyPath}, BrivetModelOptionDefault, taskName, std::move(completion));
}

Object BrivetModel::getKeyPaths(const std::optional<std::vector<std::string>>& keyPaths, BrivetModelOption option,
                                const std::optional<std::string>& taskName, BrivetCompletion completion) {
  if (!keyPaths) {
    static constexpr std::string_view kMessage = "BrivetModel:getKeyPaths ERROR: 'keyPaths' argument not specified.";
    logError(kMessage);
    if (completion) completion(Object(), legacyError(kMessage));
    return Object();
  }
  auto request = std::make_shared<GetRequest>();
  request->keyPaths = *keyPaths;
  request->option = option;
  request->completion = std::move(completion);
  const std::string joined = internal::joinStrings(*keyPaths, ", ");
  if (BrivetSignpost::isStreamEnabled()) {
    request->streamSignpost =
        BrivetSignpost::beginStreamForMethod("get", option == BrivetModelOptionForceRemote, joined);
  }
  request->taskName = taskName.value_or(joined);
  beginTraceForTaskName(request->taskName, request->uuid);
  for (const std::string& keyPath : *keyPaths) {
    if (!keyPath.empty()) request->paths.push_back(BrivetPath::withKeyPath(keyPath));
  }

  switch (option) {
    case BrivetModelOptionDefault: {
      logDebug("getKeyPaths: %@, option: BrivetModelOptionDefault", *keyPaths);
      bool withinBudget = true;
      queue_->sync([&] {
        std::vector<std::shared_ptr<BrivetPath>> all;
        all.reserve(keyPaths->size());
        for (const std::string& keyPath : *keyPaths) all.push_back(BrivetPath::withKeyPath(keyPath));
        // One budget for the whole request.
        WalkBudget budget(internal::walkBudget(rawPaths(all)));
        for (const auto& path : all) {
          withinBudget = collectMisses(request->missing, path.get(), std::nullopt, budget);
          if (!withinBudget) break;
        }
      });
      if (!withinBudget) {
        const Error error = walkBudgetError("getKeyPaths");
        logError(error.localizedDescription());
        deliver(request->completion, Object(), error);
        endTraceForUUID(request->uuid, request->taskName, error, false, false);
        BrivetSignpost::endStreamWithId(request->streamSignpost, false);
        return Object();
      }
      break;
    }
    case BrivetModelOptionNoCache:
      logDebug("getKeyPaths: %@, option: BrivetModelOptionNoCache", *keyPaths);
      [[fallthrough]];
    case BrivetModelOptionForceRemote:
      logDebug("getKeyPaths: %@, option: BrivetModelOptionForceRemote", *keyPaths);
      request->missing = *keyPaths;
      break;
    case BrivetModelOptionReturnCacheDataAndFetch: {
      logDebug("getKeyPaths: %@, option: BrivetModelOptionReturnCacheDataAndFetch", *keyPaths);
      Object cached;
      bool exceeded = false;
      const auto paths = rawPaths(request->paths);
      queue_->sync([&] { cached = internal::getJSONForPaths(jsongModel_, paths, &exceeded); });
      if (exceeded) {
        deliver(request->completion, Object(), walkBudgetError("getKeyPaths"));
      } else {
        deliver(request->completion, std::move(cached), std::nullopt);
      }
      request->missing = *keyPaths;
      break;
    }
    case BrivetModelOptionReturnCacheDataDontFetch:
      logDebug("getKeyPaths: %@, option: BrivetModelOptionReturnCacheDataDontFetch", *keyPaths);
      break;
    default:  // out of range: cache only, silently
      break;
  }

  if (!request->missing.empty()) {
    logDebug("getKeyPaths: missedKeyPaths %ld", request->missing.size());
    if (BrivetSignpost::isDataSourceEnabled()) {
      request->dataSourceSignpost =
          BrivetSignpost::beginDataSourceForMethod("get", internal::joinStrings(request->missing, ", "),
                                                   request->streamSignpost);
    }
    return fetchKeyPaths(
        request->missing, request->uuid,
        [weak = weak_from_this(), request](Object results, Object extra, std::optional<Error> error) {
          BrivetSignpost::endDataSourceWithId(request->dataSourceSignpost, !error.has_value());
          const auto self = weak.lock();
          if (error) {
            if (self) self->logDebug("getKeyPaths: error %@", *error);
            deliver(request->completion, Object(), error);
            if (self) self->endTraceForUUID(request->uuid, request->taskName, error, false, false);
            BrivetSignpost::endStreamWithId(request->streamSignpost, false);
            return;
          }
          if (self == nullptr) return;
          self->queue_->asyncBarrier([weak, request, results = std::move(results), extra = std::move(extra)] {
            if (const auto model = weak.lock()) model->handleGetResponse(request, results, extra);
          });
        });
  }
  if (request->completion) {
    const std::uint64_t cacheSignpost =
        BrivetSignpost::isCacheEnabled() ? BrivetSignpost::beginCacheForMethod("get", joined, request->streamSignpost)
                                         : 0;
    logDebug("getKeyPaths: already have all the data");
    Object cached;
    bool exceeded = false;
    const auto paths = rawPaths(request->paths);
    queue_->sync([&] { cached = internal::getJSONForPaths(jsongModel_, paths, &exceeded); });
    const std::optional<Error> error = exceeded ? std::optional<Error>(walkBudgetError("getKeyPaths")) : std::nullopt;
    deliver(request->completion, exceeded ? Object() : std::move(cached), error);
    endTraceForUUID(request->uuid, request->taskName, error, /*cached=*/true, /*hasExpired=*/false);
    BrivetSignpost::endCacheWithId(cacheSignpost, 0);
    BrivetSignpost::endStreamWithId(request->streamSignpost, !exceeded);
  }
  return Object();
}

void BrivetModel::handleGetResponse(const std::shared_ptr<GetRequest>& request, const Object& results,
                                    const Object& extra) {
  auto fail = [&](const std::optional<Error>& error) {
    deliver(request->completion, Object(), error);
    endTraceForUUID(request->uuid, request->taskName, error, false, false);
    BrivetSignpost::endStreamWithId(request->streamSignpost, false);
  };
  const Object pathBoundError = results[BRIVET_NODE_ERROR_KEY];
  if (pathBoundError.isDictionary()) {
    logDebug("getKeyPaths: pathBoundError: %@", pathBoundError);
    if (isValidPathBoundError(pathBoundError)) {
      const Object message = pathBoundError[BRIVET_NODE_ERROR_MESSAGE_KEY];
      fail(message.isString() ? legacyError(message.stringValue()) : bareLegacyError());
      return;
    }
  }
  std::optional<Error> valueError;
  const Object value =
      valueFromResults(results, BRIVET_NODE_VALUE_KEY, ObjectKind::Dictionary, /*mutableOnly=*/true, &valueError);
  if (value.isNil()) {
    logDebug("getKeyPaths: valueError: %@", valueError);
    fail(valueError);
    return;
  }
  const std::uint64_t cacheSignpost =
      BrivetSignpost::isCacheEnabled()
          ? BrivetSignpost::beginCacheForMethod("get", internal::joinStrings(request->missing, ", "),
                                                request->streamSignpost)
          : 0;
  Object root;
  if (request->option == BrivetModelOptionNoCache) {
    logDebug("getKeyPaths: skip the cache");
    buildJSONGraph(value, Object(), value, Object());
    root = value;
  } else {
    logDebug("getKeyPaths: merge response into the cache");
    buildJSONGraph(jsongModel_, Object(), value, Object());
    root = jsongModel_;
  }
  if (request->completion) {
    bool exceeded = false;
    Object result = internal::getJSONForPaths(root, rawPaths(request->paths), &exceeded);
    if (exceeded) {
      fail(walkBudgetError("getKeyPaths"));
      BrivetSignpost::endCacheWithId(cacheSignpost, 1);
      return;
    }
    if (const Dictionary* more = extra.asDictionary()) {
      Dictionary& out = *result.asMutableDictionary();
      for (const auto& [key, entry] : *more) out.setObject(entry, key);
    }
    deliver(request->completion, std::move(result), std::nullopt);
  }
  endTraceForUUID(request->uuid, request->taskName, std::nullopt, false, false);
  BrivetSignpost::endCacheWithId(cacheSignpost, 1);
  BrivetSignpost::endStreamWithId(request->streamSignpost, true);
}

Object BrivetModel::fetchKeyPaths(const std::optional<std::vector<std::string>>& keyPaths, const UUID& uuid,
                                  BrivetDataSourceCompletion completion) {
  const std::shared_ptr<BrivetDataSource> source = dataSource();
  if (!keyPaths || source == nullptr) {
    const std::string_view message = !keyPaths ? "BrivetLoader:fetchKeyPaths ERROR: 'keyPaths' is not specified."
                                               : "BrivetLoader:fetchKeyPaths ERROR: 'data source' is not specified.";
    logError(message);
    if (completion) completion(Object(), Object(), legacyError(message));
    return Object();
  }
  const Object params = startParameters(source->preGetWithKeyPaths(*this, *keyPaths));
  params.asMutableDictionary()->setObject(pqlArray(*keyPaths), "path");
  const auto start = std::chrono::steady_clock::now();
  logExNetworkInfo("get remote request: path = %@", stringArray(*keyPaths));
  return source->getWithParams(*this, params, uuid,
                               [weak = weak_from_this(), start, completion = std::move(completion)](
                                   Object results, Object extra, std::optional<Error> error) {
                                 if (const auto self = weak.lock()) {
                                   self->logExNetworkInfo("get remote response: %@, %f millisecond(s)", results,
                                                          millisecondsSince(start));
                                 }
                                 if (completion) completion(std::move(results), std::move(extra), std::move(error));
                               });
}

bool BrivetModel::isValidPathBoundError(const Object& pathBoundError) {
  const Object pql = pathBoundError["pql"];
  if (pql.count() == 1 && pql.isArray() && pql[0].isString() && pql[0].stringValue() == "config") {
    logDebug("Config path bound error %@", pathBoundError);
    return false;
  }
  return true;
}

Object BrivetModel::valueFromResults(const Object& results, std::string_view key, ObjectKind expectedKind,
                                     bool mutableOnly, std::optional<Error>* error) {
  const Object value = results[key];
  if (value.isNil()) return Object();
  const bool matches =
      value.is(expectedKind) && (!mutableOnly || value.isMutableDictionary() || value.isMutableArray());
  if (matches) return value;
  if (error != nullptr && !value.isNull()) {
    const char* className = expectedKind == ObjectKind::Array ? (mutableOnly ? "MutableArray" : "Array")
                                                              : (mutableOnly ? "MutableDictionary" : "Dictionary");
    *error = legacyError(formatString(
        "BrivetModel:valueFromResults ERROR: Value for results key '%@' is not null or of type %@.", key, className));
  }
  return Object();
}

// --- Call ---

Object BrivetModel::callFunction(const std::shared_ptr<const BrivetFunctionCall>& function,
                                 BrivetCompletion completion) {
  return callFunction(function, std::nullopt, std::move(completion));
}

Object BrivetModel::callFunction(const std::shared_ptr<const BrivetFunctionCall>& function,
                                 const std::optional<std::vector<std::string>>& fetchKeyPaths,
                                 BrivetCompletion completion) {
  auto request = std::make_shared<CallRequest>();
  request->completion = std::move(completion);
  request->callKeyPath = function != nullptr ? function->callKeyPath().value_or("") : "";
  if (BrivetSignpost::isStreamEnabled()) {
    request->streamSignpost = BrivetSignpost::beginStreamForMethod("call", false, request->callKeyPath);
  }
  if (BrivetSignpost::isDataSourceEnabled()) {
    request->dataSourceSignpost =
        BrivetSignpost::beginDataSourceForMethod("call", request->callKeyPath, request->streamSignpost);
  }
  request->taskName = function != nullptr && function->taskName() ? *function->taskName() : request->callKeyPath;
  beginTraceForTaskName(request->taskName, request->uuid);
  return fireCallFunction(
      function, fetchKeyPaths, request->uuid,
      [weak = weak_from_this(), request](Object results, Object /*extra*/, std::optional<Error> error) {
        BrivetSignpost::endDataSourceWithId(request->dataSourceSignpost, !error.has_value());
        const auto self = weak.lock();
        if (error) {
          deliver(request->completion, Object(), error);
          if (self) self->endTraceForUUID(request->uuid, request->taskName, error, false, false);
          BrivetSignpost::endStreamWithId(request->streamSignpost, false);
          return;
        }
        if (self == nullptr) return;
        self->queue_->asyncBarrier([weak, request, results = std::move(results)] {
          if (const auto model = weak.lock()) model->handleCallResponse(request, results);
        });
      });
}

Object BrivetModel::fireCallFunction(const std::shared_ptr<const BrivetFunctionCall>& function,
                                     const std::optional<std::vector<std::string>>& fetchKeyPaths, const UUID& uuid,
                                     BrivetDataSourceCompletion completion) {
  auto fail = [&](std::string_view message) {
    logError(message);
    if (completion) completion(Object(), Object(), legacyError(message));
    return Object();
  };
  if (function == nullptr)
    return fail("BrivetLoader:callFunction ERROR: 'brivetFunction' to be called is not specified.");
  if (!function->callKeyPath())
    return fail("BrivetLoader:callFunction ERROR: 'function.callKeyPath' must be specified.");
  const std::shared_ptr<BrivetDataSource> source = dataSource();
  if (source == nullptr) return fail("BrivetLoader:callFunction ERROR: 'data source' is not specified.");

  const Object params = startParameters(source->preCallWithKeyPaths(*this, fetchKeyPaths));
  Dictionary& out = *params.asMutableDictionary();
  out.setObject(Object(convertKeyPathToPQL(*function->callKeyPath())), "callPath");
  const auto& arguments = function->callArguments();
  if (!arguments || arguments->empty()) {
    out.setObject(Object("null"), "param");
  } else {
    std::vector<Object> texts;
    texts.reserve(arguments->size());
    for (const Object& argument : *arguments) {
      if (argument.isDictionary()) {
        Result<std::string> json = writeJSON(argument);
        if (!json.ok()) {
          logError("BrivetLoader:callFunction ERROR: JSON serialization error in call arguments.");
          if (completion) completion(Object(), Object(), json.error());
          return Object();
        }
        texts.emplace_back(std::move(json).value());
      } else {
        texts.emplace_back("\"" + argument.description() + "\"");
      }
    }
    out.setObject(Object::array(std::move(texts)), "param");
  }
  if (const auto& suffixes = function->returnKeyPathSuffixes()) {
    std::vector<std::string> pql;
    pql.reserve(suffixes->size());
    for (const std::string& suffix : *suffixes) pql.push_back(convertKeyPathToPQL(suffix));
    out.setObject(Object(internal::joinStrings(pql, BRIVET_PQL_PATH_SEPARATOR)), "pathSuffix");
  }
  if (fetchKeyPaths) out.setObject(pqlArray(*fetchKeyPaths), "path");
  out.setObject(Object("call"), "method");

  logExNetworkInfo("call remote request: %@, additionalPath = %@", *function,
                   fetchKeyPaths ? stringArray(*fetchKeyPaths) : Object());
  const auto start = std::chrono::steady_clock::now();
  return source->callWithParams(*this, params, uuid,
                                [weak = weak_from_this(), start, completion = std::move(completion)](
                                    Object results, Object extra, std::optional<Error> error) {
                                  if (const auto self = weak.lock()) {
                                    self->logExNetworkInfo("call remote response: %@, %f millisecond(s)", results,
                                                           millisecondsSince(start));
                                  }
                                  if (completion) completion(std::move(results), std::move(extra), std::move(error));
                                });
}

void BrivetModel::handleCallResponse(const std::shared_ptr<CallRequest>& request, const Object& results) {
  auto fail = [&](const std::optional<Error>& error) {
    deliver(request->completion, Object(), error);
    endTraceForUUID(request->uuid, request->taskName, error, false, false);
  };
  const Object pathBoundError = results[BRIVET_NODE_ERROR_KEY];
  if (pathBoundError.isDictionary()) {
    logDebug("callFunction: pathBoundError: %@", pathBoundError);
    if (isValidPathBoundError(pathBoundError)) {
      const Object message = pathBoundError[BRIVET_NODE_ERROR_MESSAGE_KEY];
      fail(message.isNil()
               ? bareLegacyError()
               : legacyError(message.isString() ? std::string(message.stringValue()) : message.description()));
      BrivetSignpost::endStreamWithId(request->streamSignpost, false);
      return;
    }
  }
  const std::uint64_t cacheSignpost =
      BrivetSignpost::beginCacheForMethod("call", request->callKeyPath, request->streamSignpost);
  const Object invalidated =
      valueFromResults(results, BRIVET_NODE_INVALIDATED_KEY, ObjectKind::Array, /*mutableOnly=*/false, nullptr);
  for (const Object& keys : invalidated.isArray() ? invalidated.asArray()->elements() : std::span<const Object>()) {
    if (keys.isArray()) jsongModel_.setValueForKeyPath(Object(), internal::joinDescriptions(keys, "."));
  }
  std::optional<Error> valueError;
  const Object value =
      valueFromResults(results, BRIVET_NODE_VALUE_KEY, ObjectKind::Dictionary, /*mutableOnly=*/true, &valueError);
  if (value.isNil()) {
    logDebug("callFunction: valueError: %@", valueError);
    fail(valueError);
    BrivetSignpost::endCacheWithId(cacheSignpost, 1);
    BrivetSignpost::endStreamWithId(request->streamSignpost, false);
    return;
  }
  std::vector<std::shared_ptr<BrivetPathSet>> pathSets;
  const Object paths = valueFromResults(results, BRIVET_NODE_PATHS_KEY, ObjectKind::Array, false, nullptr);
  for (const Object& pathSet : paths.isArray() ? paths.asArray()->elements() : std::span<const Object>()) {
    if (auto set = BrivetPathSet::withPathSets(pathSet)) pathSets.push_back(std::move(set));
  }
  buildJSONGraph(jsongModel_, Object(), value, Object());
  if (request->completion) {
    bool exceeded = false;
    Object result =
        pathSets.empty() ? Object::mutableDictionary() : internal::getJSONForPaths(value, rawPaths(pathSets), &exceeded);
    if (exceeded) {
      fail(walkBudgetError("callFunction"));
      BrivetSignpost::endCacheWithId(cacheSignpost, 1);
      BrivetSignpost::endStreamWithId(request->streamSignpost, false);
      return;
    }
    deliver(request->completion, std::move(result), std::nullopt);
  }
  endTraceForUUID(request->uuid, request->taskName, std::nullopt, false, false);
  BrivetSignpost::endCacheWithId(cacheSignpost, 1);
  BrivetSignpost::endStreamWithId(request->streamSignpost, true);
}

}  // namespace brivet
