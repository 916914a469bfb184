// TovHTTPClient: a ready-made HTTP client for the core model.
//
// `GET` sends the parameter dictionary as the query of a GET to the URL and
// `POST` as a form-encoded body (each value as JSON text, see http_json.h).
// Each answers a response stream whose task starts the request when the model
// subscribes and whose cancel aborts the transfer. A JSON answer is reported
// as one progress dictionary followed by a completion without error; every
// failure (an HTTP status of 400 or more with its error body, an answer that
// is not JSON or has no "jsonGraph" object, a refused connection, a timeout) completes
// with an error in `httpErrorDomain()`, which the model maps to its reasons.
//
// Create it with `create`, keep the shared pointer (models hold their client
// weakly) and pass it to `TovBrivet::createTovModelWithUrl`. Connections are
// reused across requests; requests run on the client's own network thread.
// Safe to use from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "brivet/adapters/http_transport.h"
#include "brivet/core/model/tov_protocols.h"
#include "brivet/platform/error.h"

namespace brivet {

class TovHTTPClient final : public TovHTTPClientProtocol {
 public:
  // One finished request, as an observer sees it.
  struct Exchange {
    HTTPRequest::Method method = HTTPRequest::Method::GET;
    std::string url;
    std::chrono::microseconds elapsed{0};  // from sending to the answer decoded
    std::size_t responseBytes = 0;
    std::optional<Error> failure;  // as the model receives it
  };
  struct Options {
    HTTPTransport::Options transport;
    // Told about every finished request (not cancelled ones), on the network
    // thread, before the model hears the answer: keep it short.
    std::function<void(const Exchange&)> observer;
  };

  static std::shared_ptr<TovHTTPClient> create(Options options);
  static std::shared_ptr<TovHTTPClient> create() { return create(Options{}); }

  std::shared_ptr<TovHTTPDataSourceResponseStream> GET(const std::string& url, const Object& parameters) override;
  std::shared_ptr<TovHTTPDataSourceResponseStream> POST(const std::string& url, const Object& parameters) override;

 private:
  TovHTTPClient(std::shared_ptr<HTTPTransport> transport, std::function<void(const Exchange&)> observer)
      : transport_(std::move(transport)), observer_(std::move(observer)) {}
  std::shared_ptr<TovHTTPDataSourceResponseStream> request(HTTPRequest::Method method, const std::string& url,
                                                           const Object& parameters);

  const std::shared_ptr<HTTPTransport> transport_;
  const std::function<void(const Exchange&)> observer_;
};

}  // namespace brivet
