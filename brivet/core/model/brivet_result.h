// BrivetResult<T>: one event of a core stream, and StreamError, its failure payload.
//
// An event is `progress` (a value; any number of them), `failure` (terminal)
// or `complete` (terminal). A failure carries a `StreamError`: a
// `BrivetError` raised by the core, or a platform `Error` passed through from
// the application (an HTTP client's failure). Towards the platform either
// becomes an `Error` (a BrivetError by its standard conversion).
//
// Values: copy and share freely across threads.
#pragma once

#include <string>
#include <utility>
#include <variant>

#include "brivet/core/values/brivet_error.h"
#include "brivet/platform/error.h"

namespace brivet {

class StreamError {
 public:
  StreamError(BrivetError error) : error_(std::move(error)) {}  // NOLINT: either error is a stream error
  StreamError(Error error) : error_(std::move(error)) {}        // NOLINT

  bool isBrivetError() const { return std::holds_alternative<BrivetError>(error_); }
  const BrivetError* brivetError() const { return std::get_if<BrivetError>(&error_); }
  const Error* platformError() const { return std::get_if<Error>(&error_); }
  // The platform error handed to platform-facing callbacks.
  Error toError() const { return isBrivetError() ? brivetError()->toError() : *platformError(); }
  std::string description() const {
    return isBrivetError() ? brivetError()->description() : platformError()->description();
  }
  // One line saying what failed: the BrivetError's `text()`, or the platform
  // error's localized description.
  std::string text() const {
    return isBrivetError() ? brivetError()->text() : platformError()->localizedDescription();
  }
  friend bool operator==(const StreamError& a, const StreamError& b) { return a.error_ == b.error_; }

 private:
  std::variant<BrivetError, Error> error_;
};

template <class T>
class BrivetResult {
 public:
  static BrivetResult progress(T value) { return BrivetResult(State(std::in_place_index<0>, std::move(value))); }
  static BrivetResult failure(StreamError error) {
    return BrivetResult(State(std::in_place_index<1>, std::move(error)));
  }
  static BrivetResult complete() { return BrivetResult(State(std::in_place_index<2>)); }

  bool isProgress() const { return state_.index() == 0; }
  bool isFailure() const { return state_.index() == 1; }
  bool isComplete() const { return state_.index() == 2; }
  bool isTerminal() const { return !isProgress(); }
  const T* value() const { return std::get_if<0>(&state_); }            // progress only
  const StreamError* error() const { return std::get_if<1>(&state_); }  // failure only

  // "PROGRESS", "FAILURE" or "COMPLETE".
  std::string description() const { return isProgress() ? "PROGRESS" : (isFailure() ? "FAILURE" : "COMPLETE"); }
  // With the payload: "PROGRESS: <value>", "FAILURE: <error>", "COMPLETE".
  std::string debugDescription() const {
    if (isFailure()) return "FAILURE: " + error()->description();
    if (isComplete()) return "COMPLETE";
    if constexpr (requires(const T& t) { t.description(); }) {
      return "PROGRESS: " + std::string(value()->description());
    } else {
      return "PROGRESS: <value>";
    }
  }

 private:
  using State = std::variant<T, StreamError, std::monostate>;
  explicit BrivetResult(State state) : state_(std::move(state)) {}
  State state_;
};

}  // namespace brivet
