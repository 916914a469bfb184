// Result<T, E>: a value or the error that prevented it.
//
// Failures in Brivet travel as values, never as exceptions. Operations that can
// fail return a Result; callers test `ok()` and then read `value()` or
// `error()`. Reading the wrong side is a programming error (a precondition).
// `Result<void, E>` carries only the optional error.
#pragma once

#include <type_traits>
#include <utility>
#include <variant>

#include "brivet/platform/precondition.h"

namespace brivet {

class Error;

// Wraps an error so that a Result can be built from it even when T and E coincide.
template <class E>
struct Failure {
  E error;
};
template <class E>
Failure(E) -> Failure<E>;

template <class T, class E = Error>
class [[nodiscard]] Result {
 public:
  Result(const T& value) : state_(std::in_place_index<0>, value) {}  // NOLINT: implicit by design
  Result(T&& value) : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT
  template <class F, std::enable_if_t<std::is_constructible_v<E, F&&> && !std::is_same_v<T, E>, int> = 0>
  Result(F&& error) : state_(std::in_place_index<1>, std::forward<F>(error)) {}  // NOLINT
  template <class F>
  Result(Failure<F> failure) : state_(std::in_place_index<1>, std::move(failure.error)) {}  // NOLINT

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  const T& value() const& {
    BRIVET_PRECONDITION(ok(), "value() read from a failed Result");
    return *std::get_if<0>(&state_);
  }
  T& value() & {
    BRIVET_PRECONDITION(ok(), "value() read from a failed Result");
    return *std::get_if<0>(&state_);
  }
  T&& value() && {
    BRIVET_PRECONDITION(ok(), "value() read from a failed Result");
    return std::move(*std::get_if<0>(&state_));
  }
  const E& error() const& {
    BRIVET_PRECONDITION(!ok(), "error() read from a successful Result");
    return *std::get_if<1>(&state_);
  }
  E&& error() && {
    BRIVET_PRECONDITION(!ok(), "error() read from a successful Result");
    return std::move(*std::get_if<1>(&state_));
  }

  const T& operator*() const& { return value(); }
  T& operator*() & { return value(); }
  const T* operator->() const { return &value(); }
  T* operator->() { return &value(); }

  T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }

 private:
  std::variant<T, E> state_;
};

template <class E>
class [[nodiscard]] Result<void, E> {
 public:
  Result() = default;
  template <class F, std::enable_if_t<std::is_constructible_v<E, F&&>, int> = 0>
  Result(F&& error) : error_(std::forward<F>(error)), failed_(true) {}  // NOLINT
  template <class F>
  Result(Failure<F> failure) : error_(std::move(failure.error)), failed_(true) {}  // NOLINT

  bool ok() const { return !failed_; }
  explicit operator bool() const { return ok(); }
  const E& error() const {
    BRIVET_PRECONDITION(failed_, "error() read from a successful Result");
    return *std::get_if<1>(&error_);
  }

 private:
  std::variant<std::monostate, E> error_;
  bool failed_ = false;
};

}  // namespace brivet
