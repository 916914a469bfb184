// JSONEnvelope: a JSON value with the optional context a data-source response
// carried; the progress value of every core operation stream.
//
// A plain immutable value; share and read it from any thread.
#pragma once

#include <optional>
#include <string>

#include "brivet/core/values/json_value.h"

namespace brivet {

struct JSONEnvelope {
  JSONValue json;
  std::optional<JSONValue> context;

  std::string description() const {
    return "JSONEnvelope(json: " + json.description() +
           ", context: " + (context ? context->description() : std::string("nil")) + ")";
  }
  friend bool operator==(const JSONEnvelope&, const JSONEnvelope&) = default;
};

}  // namespace brivet
