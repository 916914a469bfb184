#include "brivet/core/model/internal/retry.h"

#include "brivet/core/datasource/data_source.h"
#include "brivet/core/values/brivet_error.h"

namespace brivet::internal {

namespace {

// The transport codes of the library's HTTP clients (adapters/http_json.h) worth a retry.
constexpr std::int64_t kConnectionFailed = -1;
constexpr std::int64_t kTimedOut = -2;
constexpr std::int64_t kConnectionLost = -9;

RetryAdvice adviceForStatus(std::int64_t status, const Object& userInfo) {
  RetryAdvice advice;
  advice.worthRetrying = status == 429 || (status >= 500 && status <= 599);
  if (advice.worthRetrying && (status == 429 || status == 503) && userInfo.isDictionary()) {
    advice.retryAfter = parseRetryAfter(userInfo[kHTTPRetryAfterKey]);
  }
  return advice;
}

}  // namespace

RetryAdvice retryAdvice(const StreamError& error) {
  if (const BrivetError* brivetError = error.brivetError()) {
    const BrivetError::DataSourceFailureReason* reason = brivetError->dataSourceReason();
    if (reason == nullptr || reason->kind() == BrivetError::DataSourceFailureReason::Kind::HttpClientNil) return {};
    return adviceForStatus(reason->statusCode(), reason->userInfo());
  }
  const Error* platformError = error.platformError();
  if (platformError == nullptr || platformError->domain() != httpErrorDomain()) return {};
  const std::int64_t code = platformError->code();
  if (code == kConnectionFailed || code == kTimedOut || code == kConnectionLost) return RetryAdvice{true, {}};
  return adviceForStatus(code, platformError->userInfo());
}

}  // namespace brivet::internal
