// KelHTTPDataSource: a ready-made facade data source that talks HTTP.
//
// It sends a get's parameter dictionary as the query of a GET to its URL and a
// call's as the form-encoded body of a POST (each value as JSON text, see
// http_json.h), reads the JSON answer as the response dictionary ("value",
// "error", "paths", "invalidated"; mutable containers, as the legacy model
// expects) and hands it to the model's completion. An HTTP status of 400 or
// more whose JSON body holds an "error" object with a "message" is handed over
// as the answer too: the model reads that object and fails the request with
// the server's message. Other failures - an error status with another body,
// an answer that is not JSON, a redirect, a refused or dropped connection, a
// timeout - reach the completion as errors in `httpErrorDomain()`. Each request answers a subscription object whose cancel
// aborts the transfer (the completion then receives the cancellation error).
//
// Create it with `create`, keep the shared pointer (models hold data sources
// weakly), and set it as a model's data source. Safe to use from any thread;
// completions run on the transport's thread.
#pragma once

#include <memory>
#include <string>

#include "brivet/adapters/http_transport.h"
#include "brivet/facade/kel_protocols.h"

namespace brivet {

class KelHTTPDataSource final : public KelDataSource {
 public:
  struct Options {
    std::string url;
    bool cacheExpiration = true;  // the answer to enableCacheExpirationInBrivet
    HTTPTransport::Options transport;
  };

  static std::shared_ptr<KelHTTPDataSource> create(Options options);

  bool enableCacheExpirationInBrivet(KelModel& model) override;
  Object getWithParams(KelModel& model, const Object& params, const std::optional<UUID>& performanceTraceUUID,
                       KelDataSourceCompletion completion) override;
  Object callWithParams(KelModel& model, const Object& params, const std::optional<UUID>& performanceTraceUUID,
                        KelDataSourceCompletion completion) override;

 private:
  explicit KelHTTPDataSource(Options options);
  Object send(HTTPRequest::Method method, const Object& params, KelDataSourceCompletion completion);

  const Options options_;
  const std::shared_ptr<HTTPTransport> transport_;
};

}  // namespace brivet
