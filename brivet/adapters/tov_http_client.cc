#include "brivet/adapters/tov_http_client.h"

#include <utility>

#include "brivet/adapters/http_json.h"
#include "brivet/platform/internal/mutex.h"

namespace brivet {

namespace {

// One request's handle, shared by the stream's task and cancel blocks: a
// cancel that comes before the task ran keeps the request from being sent.
class PendingRequest {
 public:
  // Sends `request` unless already cancelled.
  void start(HTTPTransport& transport, HTTPRequest request, HTTPTransport::Completion completion) {
    {
      internal::MutexLock lock(mu_);
      if (cancelled_) return;
    }
    std::shared_ptr<HTTPRequestHandle> handle = transport.send(std::move(request), std::move(completion));
    internal::MutexLock lock(mu_);
    if (cancelled_) {
      handle->cancel();
      return;
    }
    handle_ = std::move(handle);
  }
  void cancel() {
    std::shared_ptr<HTTPRequestHandle> handle;
    {
      internal::MutexLock lock(mu_);
      cancelled_ = true;
      handle = std::move(handle_);
    }
    if (handle) handle->cancel();
  }

 private:
  internal::Mutex mu_;
  bool cancelled_ BRIVET_GUARDED_BY(mu_) = false;
  std::shared_ptr<HTTPRequestHandle> handle_ BRIVET_GUARDED_BY(mu_);
};

}  // namespace

std::shared_ptr<TovHTTPClient> TovHTTPClient::create(Options options) {
  return std::shared_ptr<TovHTTPClient>(new TovHTTPClient(HTTPTransport::create(options.transport), std::move(options.observer)));
}

std::shared_ptr<TovHTTPDataSourceResponseStream> TovHTTPClient::GET(const std::string& url, const Object& parameters) {
  return request(HTTPRequest::Method::GET, url, parameters);
}

std::shared_ptr<TovHTTPDataSourceResponseStream> TovHTTPClient::POST(const std::string& url,
                                                                     const Object& parameters) {
  return request(HTTPRequest::Method::POST, url, parameters);
}

std::shared_ptr<TovHTTPDataSourceResponseStream> TovHTTPClient::request(HTTPRequest::Method method,
                                                                        const std::string& url,
                                                                        const Object& parameters) {
  auto pending = std::make_shared<PendingRequest>();
  // The stream keeps the transport alive while its request is pending, even
  // if the application drops the client meanwhile.
  auto task = [transport = transport_, observer = observer_, pending, method, url, parameters](
                  ProgressBlock progress, CompletionBlock completion) {
    Result<std::string> encoded = encodeJSONParameters(parameters);
    if (!encoded.ok()) {
      if (completion) completion(encoded.error());
      return;
    }
    HTTPRequest request;
    request.method = method;
    if (method == HTTPRequest::Method::GET) {
      request.url = url + (url.find('?') == std::string::npos ? "?" : "&") + encoded.value();
    } else {
      request.url = url;
      request.body = std::move(encoded).value();
    }
    const auto sent = std::chrono::steady_clock::now();
    Exchange exchange;
    exchange.method = method;
    exchange.url = request.url;
    pending->start(*transport, std::move(request),
                   [progress = std::move(progress), completion = std::move(completion), observer,
                    exchange = std::move(exchange), sent](auto answer) mutable {
                     Result<Object> document = decodeJSONAnswer(answer, JSONReadingOptions::None);
                     if (document.ok() && !document.value()["jsonGraph"].isDictionary()) {
                       document = httpError(HTTPErrorCode::NotJSONGraph,
                                            "The server's answer is not an object with a \"jsonGraph\" object.");
                     }
                     const bool cancelled =
                         !answer.ok() && answer.error().kind == HTTPTransportError::Kind::Cancelled;
                     if (observer && !cancelled) {
                       exchange.elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::steady_clock::now() - sent);
                       exchange.responseBytes = answer.ok() ? answer.value().body.size() : 0;
                       if (!document.ok()) exchange.failure = document.error();
                       observer(exchange);
                     }
                     if (!document.ok()) {
                       if (completion) completion(document.error());
                       return;
                     }
                     if (progress) progress(document.value());
                     if (completion) completion(std::nullopt);
                   });
  };
  return std::make_shared<TovHTTPDataSourceResponseStream>(std::move(task), [pending] { pending->cancel(); });
}

}  // namespace brivet
