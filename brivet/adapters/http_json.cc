#include "brivet/adapters/http_json.h"

#include <utility>
#include <vector>

namespace brivet {

Error httpError(HTTPErrorCode code, std::string message) {
  return Error::withDescription(httpErrorDomain(), static_cast<std::int64_t>(code), std::move(message));
}

Result<std::string> encodeJSONParameters(const Object& parameters) {
  std::vector<std::pair<std::string, std::string>> fields;
  if (const Dictionary* d = parameters.asDictionary()) {
    for (const auto& [key, value] : *d) {
      Result<std::string> text = writeJSON(value, JSONWritingOptions::FragmentsAllowed);
      if (!text.ok()) {
        return httpError(HTTPErrorCode::BadParameters,
                         "parameter " + key.description() + ": " + text.error().localizedDescription());
      }
      fields.emplace_back(key.description(), std::move(text).value());
    }
  }
  return HTTPTransport::formEncode(fields);
}

Result<Object> decodeJSONAnswer(const Result<HTTPResponse, HTTPTransportError>& answer, JSONReadingOptions options) {
  if (!answer.ok()) {
    const HTTPTransportError& failure = answer.error();
    switch (failure.kind) {
      case HTTPTransportError::Kind::ConnectionFailed:
        return httpError(HTTPErrorCode::ConnectionFailed, "Could not connect: " + failure.message);
      case HTTPTransportError::Kind::TimedOut:
        return httpError(HTTPErrorCode::TimedOut, "The request timed out: " + failure.message);
      case HTTPTransportError::Kind::Cancelled: return httpError(HTTPErrorCode::Cancelled, "The request was cancelled.");
      case HTTPTransportError::Kind::TooLarge:
        return httpError(HTTPErrorCode::TooLarge, "The answer is too large: " + failure.message);
      case HTTPTransportError::Kind::Other:
        return httpError(HTTPErrorCode::TransferFailed, "The request failed: " + failure.message);
      case HTTPTransportError::Kind::ConnectionLost:
        return httpError(HTTPErrorCode::ConnectionLost, "The connection was lost: " + failure.message);
      case HTTPTransportError::Kind::TooManyRedirects:
        return httpError(HTTPErrorCode::TooManyRedirects, "Too many redirects: " + failure.message);
      case HTTPTransportError::Kind::BadURL:
        return httpError(HTTPErrorCode::BadURL, "The URL cannot be requested: " + failure.message);
    }
  }
  const HTTPResponse& response = answer.value();
  if (response.statusCode >= 300 && response.statusCode < 400) {
    return httpError(HTTPErrorCode::Redirected,
                     "The server redirected (HTTP " + std::to_string(response.statusCode) + ")" +
                         (response.location.empty() ? std::string() : " to " + response.location) + ".");
  }
  Result<Object> document = parseJSON(response.body, options);
  if (response.statusCode >= 400) {
    const Object body = document.ok() ? document.value() : Object(response.body);
    return httpFailure(response.statusCode, body,
                       response.retryAfterSeconds > 0 ? Object(response.retryAfterSeconds) : Object());
  }
  if (!document.ok()) {
    return httpError(HTTPErrorCode::NotJSON,
                     "The server's answer is not JSON: " + document.error().localizedDescription());
  }
  return document;
}

}  // namespace brivet
