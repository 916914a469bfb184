// JSON over HTTP, shared by the ready-made adapters of both models.
//
// Requests carry a parameter dictionary: as query parameters of a GET, or as a
// form-encoded POST body, each value written as JSON text (a string value
// "call" travels as "\"call\"", an array as its JSON array). The loopback
// server reads them back the same way.
//
// Answers are JSON documents. Every way an answer can fail becomes an `Error`
// in the domain `httpErrorDomain()` ("io.brivet.Brivet.HTTP"): an HTTP status
// of 400 or more is `httpFailure(status, body)` (the code is the status; the
// user info holds the status under `kHTTPStatusCodeKey` and the error body -
// parsed JSON when it is JSON, else its text - under `kHTTPErrorBodyKey`), so
// the core model reads its reason from the body; a body that is not JSON, a
// redirect that was not followed, a refused or dropped connection, a timeout,
// a cancelled request, an answer too large or a malformed URL have the
// negative codes below.
//
// The core model's client is stricter than the data source it serves: an
// answer without a "jsonGraph" object would silently give no value, so it
// fails with `NotJSONGraph` and the application hears what went wrong.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "brivet/adapters/http_transport.h"
#include "brivet/core/datasource/data_source.h"
#include "brivet/platform/error.h"
#include "brivet/platform/json.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

enum class HTTPErrorCode : std::int64_t {
  ConnectionFailed = -1,
  TimedOut = -2,
  Cancelled = -3,
  TooLarge = -4,
  NotJSON = -5,
  BadParameters = -6,
  TransferFailed = -7,
  NotJSONGraph = -8,  // JSON, but not the object with a "jsonGraph" object that the core model reads
  ConnectionLost = -9,     // the connection was closed or reset before the answer was complete
  Redirected = -10,        // a 3xx answer, not followed (see HTTPTransport::Options::maxRedirects)
  TooManyRedirects = -11,  // more redirects than the transport follows
  BadURL = -12,            // the URL is malformed or not http / https
};

// "k1=v1&k2=v2" with every value of the dictionary written as JSON text; an
// error when a value cannot be written as JSON.
[[nodiscard]] Result<std::string> encodeJSONParameters(const Object& parameters);

// The JSON document of a successful answer, or the error that describes why
// there is none.
[[nodiscard]] Result<Object> decodeJSONAnswer(const Result<HTTPResponse, HTTPTransportError>& answer,
                                              JSONReadingOptions options);

Error httpError(HTTPErrorCode code, std::string message);

}  // namespace brivet
