#include "brivet/adapters/kel_http_data_source.h"

#include "brivet/adapters/http_json.h"
#include "brivet/facade/kel_types.h"

namespace brivet {

std::shared_ptr<KelHTTPDataSource> KelHTTPDataSource::create(Options options) {
  return std::shared_ptr<KelHTTPDataSource>(new KelHTTPDataSource(std::move(options)));
}

KelHTTPDataSource::KelHTTPDataSource(Options options)
    : options_(std::move(options)), transport_(HTTPTransport::create(options_.transport)) {}

bool KelHTTPDataSource::enableCacheExpirationInBrivet(KelModel& /*model*/) { return options_.cacheExpiration; }

Object KelHTTPDataSource::getWithParams(KelModel& /*model*/, const Object& params,
                                        const std::optional<UUID>& /*performanceTraceUUID*/,
                                        KelDataSourceCompletion completion) {
  return send(HTTPRequest::Method::GET, params, std::move(completion));
}

Object KelHTTPDataSource::callWithParams(KelModel& /*model*/, const Object& params,
                                         const std::optional<UUID>& /*performanceTraceUUID*/,
                                         KelDataSourceCompletion completion) {
  return send(HTTPRequest::Method::POST, params, std::move(completion));
}

Object KelHTTPDataSource::send(HTTPRequest::Method method, const Object& params, KelDataSourceCompletion completion) {
  Result<std::string> encoded = encodeJSONParameters(params);
  if (!encoded.ok()) {
    if (completion) completion(Object(), Object(), encoded.error());
    return Object();
  }
  HTTPRequest request;
  request.method = method;
  if (method == HTTPRequest::Method::GET) {
    request.url = options_.url + (options_.url.find('?') == std::string::npos ? "?" : "&") + encoded.value();
  } else {
    request.url = options_.url;
    request.body = std::move(encoded).value();
  }
  auto handle = transport_->send(std::move(request), [completion = std::move(completion)](auto answer) {
    if (!completion) return;
    Result<Object> document = decodeJSONAnswer(answer, JSONReadingOptions::MutableContainers);
    if (document.ok()) {
      completion(document.value(), Object(), std::nullopt);
      return;
    }
    // A failure the server explains with an "error" object is an answer the
    // model reads itself: it reports the server's message.
    const Error& error = document.error();
    const Object body = error.domain() == httpErrorDomain() ? error.userInfo()[kHTTPErrorBodyKey] : Object();
    if (body["error"].isDictionary() && body["error"]["message"].isString()) {
      completion(body, Object(), std::nullopt);
    } else {
      completion(Object(), Object(), error);
    }
  });
  return Object(std::make_shared<AnySubscriptionObject>([handle] { handle->cancel(); }));
}

}  // namespace brivet
