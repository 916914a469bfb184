#include "brivet/core/model/tov_model.h"

#include <algorithm>
#include <utility>

#include "brivet/core/datasource/http_data_source.h"
#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/platform/precondition.h"
#include "brivet/platform/signpost.h"

namespace brivet {

std::optional<TovModelOption> tovModelOptionFromRawValue(std::int64_t rawValue) {
  switch (rawValue) {
    case 0: return TovModelOption::Default;
    case 1: return TovModelOption::NoCache;
    case 2: return TovModelOption::ForceRemote;
    default: return std::nullopt;
  }
}

namespace {

using DataSourceFailureReason = BrivetError::DataSourceFailureReason;

// A function's key path as its keys: the dotted components, empty ones dropped.
std::vector<std::string> functionPath(std::string_view keyPath) {
  std::vector<std::string> keys;
  std::size_t start = 0;
  while (start <= keyPath.size()) {
    std::size_t dot = keyPath.find('.', start);
    if (dot == std::string_view::npos) dot = keyPath.size();
    if (dot > start) keys.emplace_back(keyPath.substr(start, dot - start));
    start = dot + 1;
  }
  return keys;
}

std::optional<PathTree> treeOf(const std::optional<std::vector<std::string>>& keyPaths) {
  if (!keyPaths) return std::nullopt;
  return PathTree::fromKeyPaths(*keyPaths);
}

// A graph from an application's dictionary; anything else writes nothing.
JSONGraph graphOf(const Object& dictionary) {
  return dictionary.isDictionary() ? JSONGraph::fromAny(dictionary) : JSONGraph::emptyObject();
}

// The value at a path of single text keys inside a read result.
std::optional<JSONValue> valueAt(const JSONValue& root, const Path& path) {
  if (path.empty()) return std::nullopt;
  JSONValue value = root;
  for (const KeySet& keys : path) {
    if (keys.size() != 1 || keys.front().kind() != Key::Kind::String) return std::nullopt;
    std::optional<JSONValue> child = value.find(keys.front().stringValue());
    if (!child) return std::nullopt;
    value = std::move(*child);
  }
  return value;
}

// The signpost text of a key-path array, only when signposts are on.
std::string tracedKeyPathArray(const std::vector<std::string>& keyPaths) {
  if (!signpostsEnabledForProcess()) return std::string();
  std::vector<Object> strings(keyPaths.begin(), keyPaths.end());
  return Object::array(std::move(strings)).description();
}

std::shared_ptr<TovSubscription> subscribeForCompletion(const TovStream<JSONEnvelope>& stream,
                                                        TovCompletion completion) {
  // Both blocks run on the stream's (serial) observe queue, one after another.
  auto last = std::make_shared<Object>();
  return stream.subscribeWithProgressBlock(
      [last](const Object& dictionary) { *last = dictionary; },
      [last, completion = std::move(completion)](const std::optional<Error>& error) {
        if (completion) completion(*last, error);
      });
}

}  // namespace

// --- Creation ---

std::shared_ptr<TovInternalModel> TovBrivet::createTovModelWithUrl(
    std::optional<std::string> url, const std::shared_ptr<TovHTTPClientProtocol>& httpClient, const Object& cache,
    std::optional<std::vector<std::string>> prefixes, std::optional<std::vector<std::string>> optimizedPaths) {
  std::optional<JSONGraph> graph;
  if (cache.isDictionary()) graph = JSONGraph::fromAny(cache);
  return std::make_shared<TovInternalModel>(
      TovInternalModel::Passkey{}, Cache::create(std::move(graph), std::move(prefixes), std::move(optimizedPaths)),
      std::move(url), httpClient, std::weak_ptr<TovLoggingDelegate>());
}

TovInternalModel::TovInternalModel(Passkey, std::shared_ptr<CacheProtocol> cache, std::optional<std::string> url,
                                   std::weak_ptr<TovHTTPClientProtocol> httpClient,
                                   std::weak_ptr<TovLoggingDelegate> loggingDelegate,
                                   std::shared_ptr<DispatchQueue> operationQueue, std::int64_t maxRetries,
                                   RetryPolicy retryPolicy)
    : cache_(std::move(cache)),
      url_(std::move(url)),
      httpClient_(std::move(httpClient)),
      maxRetries_(maxRetries),
      retryPolicy_(std::move(retryPolicy)),
      operationQueue_(operationQueue != nullptr ? std::move(operationQueue) : makeTaskQueue()),
      loggingDelegate_(std::move(loggingDelegate)) {
  BRIVET_PRECONDITION(cache_ != nullptr, "a model needs a cache");
}

const InternalModel& TovInternalModel::internalModel() {
  std::call_once(internalModelOnce_, [this] {
    // Decided once: a model first used while its client is gone stays without a data source.
    const std::shared_ptr<TovInternalModel> self = shared_from_this();
    std::shared_ptr<DataSource> dataSource;
    if (url_ && !httpClient_.expired()) {
      dataSource = HTTPDataSource::create(
          *url_, std::shared_ptr<HTTPClientProtocol>(self, static_cast<HTTPClientProtocol*>(this)),
          std::shared_ptr<DataSourceLoggingDelegate>(self, static_cast<DataSourceLoggingDelegate*>(this)),
          operationQueue_);
    }
    internalModel_.emplace(cache_, std::move(dataSource), maxRetries_,
                           std::shared_ptr<LoggingDelegate>(self, static_cast<LoggingDelegate*>(this)),
                           operationQueue_, retryPolicy_);
  });
  return *internalModel_;
}

// --- TovModel ---

std::shared_ptr<TovLoggingDelegate> TovInternalModel::loggingDelegate() const {
  MutexLock lock(mu_);
  return loggingDelegate_.lock();
}

void TovInternalModel::setLoggingDelegate(const std::shared_ptr<TovLoggingDelegate>& delegate) {
  MutexLock lock(mu_);
  loggingDelegate_ = delegate;
}

std::optional<std::vector<std::string>> TovInternalModel::prefixes() const {
  std::optional<std::unordered_set<std::string>> set = cache_->prefixes();
  if (!set) return std::nullopt;
  std::vector<std::string> sorted(set->begin(), set->end());
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

std::uint64_t TovInternalModel::version() const {
  std::uint64_t version = 0;
  cacheQueue()->sync([&] { version = cache_->version(); });
  return version;
}

std::shared_ptr<TovGetOperation> TovInternalModel::getWithKeyPaths(const KeyPaths& keyPaths) {
  return std::make_shared<TovInternalGetOperation>(internalModel().get(PathTree::fromKeyPaths(keyPaths)));
}

std::shared_ptr<TovSetOperation> TovInternalModel::setWithValue(const Object& value) {
  return std::make_shared<TovInternalSetOperation>(internalModel().set(graphOf(value)));
}

std::shared_ptr<TovCallOperation> TovInternalModel::callFunctionWithKeyPath(
    const std::string& keyPath, const std::optional<std::vector<Object>>& args,
    const std::optional<KeyPaths>& refKeyPathSuffixes, const std::optional<KeyPaths>& thisKeyPaths) {
  std::optional<JSONGraph> arguments;
  if (args) arguments = JSONGraph::fromAny(Object::array(*args));
  return std::make_shared<TovInternalCallOperation>(internalModel().call(
      functionPath(keyPath), std::move(arguments), treeOf(refKeyPathSuffixes), treeOf(thisKeyPaths)));
}

Object TovInternalModel::getCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) {
  return internal::snapshotCache(*cache_, treeOf(keyPaths)).toDictionary();
}

SnapshotReport TovInternalModel::setCache(const Object& snapshotDictionary) {
  SnapshotReport report;
  if (std::optional<CacheEnvelope> envelope = CacheEnvelope::fromDictionary(snapshotDictionary, &report)) {
    cache_->setCache(std::move(*envelope));
  }
  return report;
}

void TovInternalModel::invalidateWithKeyPaths(const KeyPaths& keyPaths) {
  cache_->invalidate(PathTree::fromKeyPaths(keyPaths));
}

std::shared_ptr<TovInternalModel> TovInternalModel::withoutDataSource() {
  return std::make_shared<TovInternalModel>(Passkey{}, cache_, std::nullopt, std::weak_ptr<TovHTTPClientProtocol>(),
                                            loggingDelegate(), operationQueue_);
}

std::shared_ptr<TovInternalModel> TovInternalModel::withRetries(std::int64_t maxRetries, RetryPolicy policy) {
  return std::make_shared<TovInternalModel>(Passkey{}, cache_, url_, httpClient_, loggingDelegate(), operationQueue_,
                                            maxRetries, std::move(policy));
}

// --- TovModelLegacy: requests ---

std::shared_ptr<TovSubscription> TovInternalModel::getKeyPaths(GetOperation operation, TovModelOption option,
                                                               TovCompletion completion) {
  switch (option) {
    case TovModelOption::Default: break;
    case TovModelOption::NoCache: operation = operation.skipMerge(); break;
    case TovModelOption::ForceRemote: operation = operation.refresh(); break;
    default: BRIVET_FATAL("unexpected TovModelOption value (use tovModelOptionFromRawValue for raw values)");
  }
  return subscribeForCompletion(TovStream<JSONEnvelope>(operation.asStream()), std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::getKeyPaths(const KeyPaths& keyPaths, TovCompletion completion) {
  return getKeyPaths(keyPaths, TovModelOption::Default, std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::getKeyPaths(const KeyPaths& keyPaths, TovModelOption option,
                                                               TovCompletion completion) {
  return getKeyPaths(internalModel().get(PathTree::fromKeyPaths(keyPaths)), option, std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::getKeyPath(const std::string& keyPath, TovCompletion completion) {
  return getKeyPaths(KeyPaths{keyPath}, TovModelOption::Default, std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::getKeyPath(const std::string& keyPath, TovModelOption option,
                                                              TovCompletion completion) {
  return getKeyPaths(KeyPaths{keyPath}, option, std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::callFunction(const TovFunctionCall& function,
                                                                const std::optional<KeyPaths>& fetchKeyPaths,
                                                                TovCompletion completion) {
  auto call = callFunctionWithKeyPath(function.callKeyPath(), function.callArguments(),
                                      function.returnKeyPathSuffixes(), fetchKeyPaths);
  return subscribeForCompletion(call->asStream(), std::move(completion));
}

std::shared_ptr<TovSubscription> TovInternalModel::callFunction(const TovFunctionCall& function,
                                                                TovCompletion completion) {
  return callFunction(function, std::nullopt, std::move(completion));
}

// --- TovModelLegacy: snapshots and the cache, synchronously ---

Result<std::string> TovInternalModel::serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) {
  Result<std::string> text = internal::snapshotCache(*cache_, treeOf(keyPaths)).toJSONText();
  if (text.ok() && text.value().empty()) {
    return BrivetError::responseModelFailed(BrivetError::ModelFailureReason::serializationFailed).toError();
  }
  return text;
}

Result<SnapshotReport> TovInternalModel::deserializeCache(std::string_view data) {
  SnapshotReport report;
  Result<std::optional<CacheEnvelope>> parsed = CacheEnvelope::fromJSONText(data, &report);
  if (!parsed.ok()) return parsed.error();
  if (parsed.value()) cache_->setCache(std::move(*parsed.value()));
  return report;
}

void TovInternalModel::mergeJSONDictionaryIntoModel(const Object& dictionary) {
  if (dictionary.isDictionary()) cache_->merge(JSONGraph::fromAny(dictionary));
}

std::vector<std::optional<JSONValue>> TovInternalModel::readValues(const std::vector<std::optional<Path>>& paths,
                                                                   const PathTree& readTree,
                                                                   std::string_view signpostPaths) {
  const std::uint64_t cacheID =
      internal::beginInterval(internal::cacheLog(), "method=%@, path=%@", "getValues (sync)", signpostPaths);
  internal::Read read = internal::readCache(*cache_, readTree, /*checkExpiry=*/true);
  bool miss = internal::hasTopLevelEntry(read.missing);
  if (read.error && exceedsWalkBudget(*read.error)) {
    read.value = JSONValue::emptyObject();  // the key paths fan out past the walk budget: nothing is read
  } else if (read.error) {
    // One error leaf (or a path that ends on a branch) fails a whole read: read
    // path so that the others still answer (sibling leaves share one key set
    // in a flattened path: each is read on its own).
    read.value = JSONValue::emptyObject();
    for (Path path : readTree.paths()) {
      const KeySet last = path.back();
      for (const Key& key : last) {
        path.back() = KeySet{key};
        internal::Read one = internal::readCache(*cache_, PathTree::fromPaths({path}), /*checkExpiry=*/true);
        miss = miss || one.error.has_value() || internal::hasTopLevelEntry(one.missing);
        if (!one.error) read.value = JSONValue::merge(one.value, read.value);
      }
    }
  }
  internal::endInterval(internal::cacheLog(), cacheID, "miss=%lu", miss ? 1u : 0u);

  std::vector<std::optional<JSONValue>> values;
  values.reserve(paths.size());
  for (const std::optional<Path>& path : paths) values.push_back(path ? valueAt(read.value, *path) : std::nullopt);
  return values;
}

std::vector<Object> TovInternalModel::valuesForKeyPaths(const KeyPaths& keyPaths,
                                                        const std::optional<KeyPaths>& optimizedKeyPaths,
                                                        bool fillEmptyWithNull) {
  std::vector<std::optional<Path>> paths;
  paths.reserve(keyPaths.size());
  for (const std::string& keyPath : keyPaths) paths.emplace_back(PathTree::parsePath(keyPath));
  const std::vector<std::optional<JSONValue>> found = readValues(
      paths, PathTree::fromKeyPaths(optimizedKeyPaths ? *optimizedKeyPaths : keyPaths), tracedKeyPathArray(keyPaths));
  std::vector<Object> values;
  values.reserve(found.size());
  for (const std::optional<JSONValue>& value : found) {
    if (value) {
      values.push_back(value->toAnyType());
    } else if (fillEmptyWithNull) {
      values.push_back(Object::null());
    }
  }
  return values;
}

std::vector<Object> TovInternalModel::valuesForKeyPaths(const KeyPaths& keyPaths) {
  return valuesForKeyPaths(keyPaths, std::nullopt, /*fillEmptyWithNull=*/true);
}

Object TovInternalModel::valueForKeyPath(std::string_view keyPath) {
  std::vector<Object> values = valuesForKeyPaths(KeyPaths{std::string(keyPath)}, std::nullopt, false);
  return values.empty() ? Object() : values.front();
}

Object TovInternalModel::valueForKey(std::string_view key) {
  if (key.empty()) return Object();
  const Path path{KeySet{Key::string(std::string(key))}};
  std::vector<std::optional<JSONValue>> found =
      readValues({path}, PathTree::fromPaths({path}), tracedKeyPathArray({std::string(key)}));
  return found.front() ? found.front()->toAnyType() : Object();
}

void TovInternalModel::writeValue(const Object& value, std::optional<Path> path) {
  if (!path || path->empty()) return;
  for (const KeySet& keys : *path) {
    if (keys.size() != 1 || keys.front().kind() != Key::Kind::String) return;  // ranges are not written
  }
  if (value.isNil()) {
    cache_->invalidate(PathTree::fromPaths({*path}));
    return;
  }
  Object nested = value;
  for (auto keys = path->rbegin(); keys != path->rend(); ++keys) {
    nested = Object::dictionary({{Object(keys->front().stringValue()), nested}});
  }
  cache_->merge(JSONGraph::fromAny(nested));
}

void TovInternalModel::setValueForKeyPath(const Object& value, std::string_view keyPath) {
  writeValue(value, PathTree::parsePath(keyPath));
}

void TovInternalModel::setValueForKey(const Object& value, std::string_view key) {
  if (key.empty()) return;
  writeValue(value, Path{KeySet{Key::string(std::string(key))}});
}

// --- The HTTP client role ---

Object TovInternalModel::preGET(const PathTree& pathTree) {
  std::shared_ptr<TovHTTPClientProtocol> client = httpClient();
  if (client == nullptr) return Object::dictionary();
  std::optional<Object> answer = client->preGETWithPqlPathSets(pathTree.toJSONArray());
  return answer && answer->isDictionary() ? *answer : Object::dictionary();
}

Object TovInternalModel::prePOST(const PathTree& pathTree) {
  std::shared_ptr<TovHTTPClientProtocol> client = httpClient();
  if (client == nullptr) return Object::dictionary();
  std::optional<Object> answer = client->prePOSTWithPqlPathSets(pathTree.toJSONArray());
  return answer && answer->isDictionary() ? *answer : Object::dictionary();
}

std::shared_ptr<Stream<Object>> TovInternalModel::GET(const std::string& url, const Object& parameters) {
  return request(url, parameters, /*post=*/false);
}

std::shared_ptr<Stream<Object>> TovInternalModel::POST(const std::string& url, const Object& parameters) {
  return request(url, parameters, /*post=*/true);
}

std::shared_ptr<Stream<Object>> TovInternalModel::request(const std::string& url, const Object& parameters, bool post) {
  using Result = BrivetResult<Object>;
  auto slot = std::make_shared<internal::SubscriptionSlot>();
  return Stream<Object>::create(
      [client = httpClient_, hasURL = url_.has_value(), url, parameters, post,
       slot](Stream<Object>::Observer observer) {
        if (slot->isCancelled()) return;
        std::shared_ptr<TovHTTPClientProtocol> application = client.lock();
        std::shared_ptr<TovHTTPDataSourceResponseStream> response;
        if (application != nullptr && hasURL) {
          response = post ? application->POST(url, parameters) : application->GET(url, parameters);
        }
        application.reset();
        if (response == nullptr) {
          observer(Result::failure(BrivetError::responseDataSourceFailed(DataSourceFailureReason::httpClientNil())));
          return;
        }
        slot->store(
            response->subscribe([observer](const Object& dictionary) { observer(Result::progress(dictionary)); },
                                [observer](const std::optional<Error>& error) {
                                  observer(error ? Result::failure(*error) : Result::complete());
                                }));
      },
      [slot] { slot->cancel(); });
}

// --- The logging roles ---

bool TovInternalModel::enableNetworkLogging(const DataSource& /*dataSource*/) {
  std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate();
  return delegate != nullptr && delegate->enableLoggingForBrivet(*this) &&
         delegate->enableExNetworkLoggingForBrivet(*this).value_or(false);
}

void TovInternalModel::logError(const DataSource& /*dataSource*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logError(*this, message);
}

void TovInternalModel::logInfo(const DataSource& /*dataSource*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logInfo(*this, message);
}

void TovInternalModel::logDebug(const DataSource& /*dataSource*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logDebug(*this, message);
}

bool TovInternalModel::enableLogging(const Model& /*model*/) {
  std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate();
  return delegate != nullptr && delegate->enableLoggingForBrivet(*this);
}

void TovInternalModel::logError(const Model& /*model*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logError(*this, message);
}

void TovInternalModel::logInfo(const Model& /*model*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logInfo(*this, message);
}

void TovInternalModel::logDebug(const Model& /*model*/, const std::string& message) {
  if (std::shared_ptr<TovLoggingDelegate> delegate = loggingDelegate()) delegate->logDebug(*this, message);
}

}  // namespace brivet
