// Fuzzes the reading of a data-source failure reason from an error body (JSON
// text read by parseJSON, as the HTTP data source hands it over).
//
// Properties: the reason is the one the rules give, checked here against the body
// independently: "code" and "message" texts give badRequest with those texts; else
// an "error" dictionary with a text "message" gives legacyPathBoundError with that
// message and a path tree exactly when its "pql" is an array holding a valid path;
// else an "error" dictionary with an "innerErrors" array gives one inner error per
// element that is a dictionary with a text "message" and a "pql" array; else none.
// A reason equals itself and its copy, describes itself, becomes a platform error
// of code 0, and its texts can be written as JSON and read back unchanged.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "brivet/core/values/brivet_error.h"
#include "brivet/platform/json.h"

namespace {

using namespace brivet;
using Reason = BrivetError::DataSourceFailureReason;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "error_body property failed: %s\n", what);
    std::abort();
  }
}

void checkTextRoundTrips(const std::string& text) {
  const Result<std::string> written = writeJSON(Object::array({Object(text)}));
  check(written.ok(), "a text read from an error body cannot be written");
  const Result<Object> back = parseJSON(written.value());
  check(back.ok() && back.value()[0].stringValue() == text, "a written error text reads back changed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Result<Object> parsed = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  if (!parsed.ok()) return 0;
  const Object& body = parsed.value();
  const std::optional<Reason> reason = Reason::fromErrorBody(body);

  const Object error = body["error"];
  std::size_t qualifyingInner = 0;
  bool hasInner = false;
  if (error["innerErrors"].isArray()) {
    hasInner = true;
    for (const Object& inner : *error["innerErrors"].asArray()) {
      if (inner["message"].isString() && inner["pql"].isArray()) ++qualifyingInner;
    }
  }
  if (body["code"].isString() && body["message"].isString()) {
    check(reason && reason->kind() == Reason::Kind::BadRequest, "code and message texts do not give badRequest");
    check(reason->code() == body["code"].stringValue() && reason->message() == body["message"].stringValue(),
          "badRequest does not carry the body's texts");
    checkTextRoundTrips(reason->code());
    checkTextRoundTrips(reason->message());
  } else if (error.isDictionary() && error["message"].isString()) {
    check(reason && reason->kind() == Reason::Kind::LegacyPathBoundError,
          "an error message does not give legacyPathBoundError");
    check(reason->message() == error["message"].stringValue(), "legacyPathBoundError lost its message");
    const bool validPath = error["pql"].isArray() && PathTree::pathFromArray(error["pql"]).has_value();
    check(reason->pathTree().has_value() == validPath, "legacyPathBoundError's path tree does not follow its pql");
    checkTextRoundTrips(reason->message());
  } else if (error.isDictionary() && hasInner) {
    check(reason && reason->kind() == Reason::Kind::LegacyPathBoundInnerError,
          "inner errors do not give legacyPathBoundInnerError");
    check(reason->innerErrors().size() == qualifyingInner, "inner errors counted wrongly");
    for (const auto& inner : reason->innerErrors()) checkTextRoundTrips(inner.message);
  } else {
    check(!reason.has_value(), "a body the rules do not match gives a reason");
    return 0;
  }
  const Reason copy = *reason;
  check(copy == *reason && *reason == *reason, "a reason does not equal itself");
  check(!reason->description().empty(), "an empty description");
  const BrivetError failure = BrivetError::responseDataSourceFailed(*reason);
  check(failure.toError().code() == 0, "a data-source failure is not code 0");
  return 0;
}
