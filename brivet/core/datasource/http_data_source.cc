#include "brivet/core/datasource/http_data_source.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <type_traits>
#include <utility>

#include "brivet/core/model/internal/subscription_slot.h"
#include "brivet/core/values/brivet_error.h"
#include "brivet/platform/date.h"
#include "brivet/platform/json.h"
#include "brivet/platform/precondition.h"

namespace brivet {

namespace {

using DataSourceFailureReason = BrivetError::DataSourceFailureReason;

bool hasOnlyStringKeys(const Dictionary& dictionary) {
  for (const auto& [key, value] : dictionary) {
    if (!key.isString()) return false;
  }
  return true;
}

// The graph and context every answer carries; nothing without a "jsonGraph" dictionary.
bool readGraphAndContext(const Object& answer, JSONGraph& graph, std::optional<JSONValue>& context) {
  const Dictionary* dictionary = answer.asDictionary();
  if (dictionary == nullptr) return false;
  const Object graphObject = dictionary->objectForKey("jsonGraph");
  const Dictionary* graphDictionary = graphObject.asDictionary();
  if (graphDictionary == nullptr || !hasOnlyStringKeys(*graphDictionary)) return false;
  graph = JSONGraph::fromAny(graphObject);
  const Object contextObject = dictionary->objectForKey("context");
  if (contextObject.isDictionary()) context = JSONValue::fromAny(contextObject);
  return true;
}

template <class Response>
std::optional<Response> readAnswer(const Object& answer) {
  Response response;
  if (!readGraphAndContext(answer, response.jsonGraph, response.context)) return std::nullopt;
  if constexpr (std::is_same_v<Response, DataSourceCallResponse>) {
    // An answer without "paths" names no values to read back; it is still merged.
    response.pathTree = PathTree::fromPathArrays(answer["paths"]);
    const Object invalidated = answer["invalidated"];
    if (invalidated.isArray()) response.invalidated = PathTree::fromPathArrays(invalidated);
  }
  return response;
}

Object pathArray(const std::vector<std::string>& path) {
  std::vector<Object> keys;
  keys.reserve(path.size());
  for (const std::string& key : path) keys.emplace_back(key);
  return Object::array(std::move(keys));
}

// The call's "param": the arguments as platform values; in an array, every
// dictionary is replaced by its JSON text. No arguments give an empty array.
Object argumentsParameter(const std::optional<JSONGraph>& args) {
  if (!args) return Object::array();
  Object converted = args->toAnyType();
  const Array* elements = converted.asArray();
  if (elements == nullptr) return converted;
  std::vector<Object> out;
  out.reserve(elements->size());
  for (const Object& element : *elements) {
    if (element.isDictionary() && isValidJSONObject(element)) {
      Result<std::string> text = writeJSON(element);
      if (text.ok()) {
        out.emplace_back(std::move(text).value());
        continue;
      }
    }
    out.push_back(element);
  }
  return Object::array(std::move(out));
}

}  // namespace

std::shared_ptr<HTTPDataSource> HTTPDataSource::create(std::string url,
                                                       std::weak_ptr<HTTPClientProtocol> httpClientDelegate,
                                                       std::weak_ptr<DataSourceLoggingDelegate> loggingDelegate,
                                                       std::shared_ptr<DispatchQueue> answerQueue) {
  return std::make_shared<HTTPDataSource>(Passkey{}, std::move(url), std::move(httpClientDelegate),
                                          std::move(loggingDelegate), std::move(answerQueue));
}

HTTPDataSource::HTTPDataSource(Passkey, std::string url, std::weak_ptr<HTTPClientProtocol> httpClientDelegate,
                               std::weak_ptr<DataSourceLoggingDelegate> loggingDelegate,
                               std::shared_ptr<DispatchQueue> answerQueue)
    : url_(std::move(url)),
      httpClientDelegate_(std::move(httpClientDelegate)),
      answerQueue_(answerQueue != nullptr ? std::move(answerQueue) : makeTaskQueue()),
      loggingDelegate_(loggingDelegate) {}

std::shared_ptr<DataSourceLoggingDelegate> HTTPDataSource::loggingDelegate() const {
  MutexLock lock(mu_);
  return loggingDelegate_.lock();
}

void HTTPDataSource::setLoggingDelegate(const std::shared_ptr<DataSourceLoggingDelegate>& delegate) {
  MutexLock lock(mu_);
  loggingDelegate_ = delegate;
}

Object HTTPDataSource::getParameters(const PathTree& pathTree) {
  return Object::dictionary({{"path", pathTree.toJSONArray()}});
}

Object HTTPDataSource::setParameters(const JSONGraph& jsonGraph) {
  return Object::dictionary({{"method", "set"}, {"param", jsonGraph.toAnyType()}});
}

Object HTTPDataSource::callParameters(const std::vector<std::string>& functionPath,
                                      const std::optional<JSONGraph>& args, const std::optional<PathTree>& refSuffixes,
                                      const std::optional<PathTree>& thisPaths) {
  std::vector<Object::Entry> entries;
  entries.emplace_back("method", "call");
  entries.emplace_back("param", argumentsParameter(args));
  entries.emplace_back("callPath", pathArray(functionPath));
  if (thisPaths) entries.emplace_back("path", thisPaths->toJSONArray());
  if (refSuffixes) entries.emplace_back("pathSuffix", refSuffixes->toJSONArray());
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}

std::string HTTPDataSource::requestText(std::string_view method, std::string_view url, const Object& parameters) {
  std::string text = std::string(method) + " - url: " + std::string(url) + ",\nparams: ";
  if (!isValidJSONObject(parameters)) {
    std::puts("json serialization error");
    return text;
  }
  Result<std::string> json = writeJSON(parameters, JSONWritingOptions::PrettyPrinted);
  if (json.ok()) text += json.value();
  return text;
}

StreamError HTTPDataSource::failureFromClient(const StreamError& error) {
  const Error* platformError = error.platformError();
  if (platformError == nullptr || !platformError->userInfo().isDictionary()) return error;
  const Object& userInfo = platformError->userInfo();
  const Number* status = userInfo[kHTTPStatusCodeKey].asNumber();
  if (std::optional<DataSourceFailureReason> reason =
          DataSourceFailureReason::fromErrorBody(userInfo[kHTTPErrorBodyKey])) {
    // The status stays with the reason so that a retry can tell a 503 from a 400.
    if (status != nullptr) *reason = std::move(*reason).withHTTPFailure(status->int64Value(), userInfo);
    return BrivetError::responseDataSourceFailed(std::move(*reason));
  }
  if (status != nullptr) {
    return BrivetError::responseDataSourceFailed(
        DataSourceFailureReason::httpClientError(status->int64Value(), userInfo));
  }
  return error;
}

std::int64_t HTTPDataSource::wholeMilliseconds(double seconds) {
  const double milliseconds = std::trunc(seconds * 1000.0);
  // The clock cannot produce such an interval; a value outside 64 bits means the arithmetic broke.
  BRIVET_PRECONDITION(milliseconds >= -9223372036854775808.0 && milliseconds < 9223372036854775808.0,
                      "response time outside the signed 64-bit range");
  return static_cast<std::int64_t>(milliseconds);
}

std::string_view HTTPDataSource::methodName(Method method) {
  switch (method) {
    case Method::Get: return "get";
    case Method::Set: return "set";
    case Method::Call: return "call";
  }
  return "get";
}

void HTTPDataSource::logResponseTime(Method method, std::int64_t milliseconds) const {
  std::shared_ptr<DataSourceLoggingDelegate> delegate = loggingDelegate();
  if (delegate == nullptr || !delegate->enableNetworkLogging(*this)) return;
  delegate->logInfo(
      *this, std::string(methodName(method)) + " remote response, " + std::to_string(milliseconds) + " milliseconds");
}

template <class Response>
std::shared_ptr<Stream<Response>> HTTPDataSource::send(Method method, Object parameters,
                                                       std::optional<PathTree> preRequest) const {
  using Result = BrivetResult<Response>;
  std::shared_ptr<const HTTPDataSource> self = shared_from_this();
  auto slot = std::make_shared<internal::SubscriptionSlot>();
  return Stream<Response>::create(
      [self, method, parameters = std::move(parameters), preRequest = std::move(preRequest),
       slot](typename Stream<Response>::Observer observer) {
        if (slot->isCancelled()) return;  // cancelled before the request went out: send nothing
        std::shared_ptr<HTTPClientProtocol> client = self->httpClientDelegate();
        if (client == nullptr) {
          observer(Result::failure(BrivetError::responseDataSourceFailed(DataSourceFailureReason::httpClientNil())));
          return;
        }
        // The request text is built (and its JSON checked) but kept by nobody.
        (void)requestText(methodName(method), self->url_, parameters);
        if (preRequest) slot->retain(client->preGET(*preRequest));
        const Date start = dateNow();
        std::shared_ptr<Stream<Object>> answers =
            method == Method::Get ? client->GET(self->url_, parameters) : client->POST(self->url_, parameters);
        client.reset();
        if (answers == nullptr) {
          slot->releaseRetained();
          observer(Result::failure(BrivetError::responseDataSourceFailed(DataSourceFailureReason::httpClientNil())));
          return;
        }
        slot->store(answers->observeOn(self->answerQueue_)
                        ->subscribe([self, method, start, observer, slot](const BrivetResult<Object>& result) {
                          if (const Object* answer = result.value()) {
                            const std::chrono::duration<double> elapsed = dateNow() - start;
                            self->logResponseTime(method, wholeMilliseconds(elapsed.count()));
                            if (std::optional<Response> response = readAnswer<Response>(*answer)) {
                              observer(Result::progress(std::move(*response)));
                            }
                            return;
                          }
                          slot->releaseRetained();
                          if (const StreamError* error = result.error()) {
                            observer(Result::failure(failureFromClient(*error)));
                          } else {
                            observer(Result::complete());
                          }
                        }));
      },
      [slot] { slot->cancel(); });
}

std::shared_ptr<Stream<DataSourceResponse>> HTTPDataSource::get(const PathTree& pathTree) const {
  return send<DataSourceResponse>(Method::Get, getParameters(pathTree), pathTree);
}

std::shared_ptr<Stream<DataSourceResponse>> HTTPDataSource::set(const JSONGraph& jsonGraph) const {
  return send<DataSourceResponse>(Method::Set, setParameters(jsonGraph), std::nullopt);
}

std::shared_ptr<Stream<DataSourceCallResponse>> HTTPDataSource::call(const std::vector<std::string>& functionPath,
                                                                     const std::optional<JSONGraph>& args,
                                                                     const std::optional<PathTree>& refSuffixes,
                                                                     const std::optional<PathTree>& thisPaths) const {
  return send<DataSourceCallResponse>(Method::Call, callParameters(functionPath, args, refSuffixes, thisPaths),
                                      std::nullopt);
}

}  // namespace brivet
