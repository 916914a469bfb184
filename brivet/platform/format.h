// format: printf-style text with the platform's object specifier "%@".
//
// The library's log messages, error texts and signpost messages are written as
// format strings ("getKeyPaths: missedKeyPaths %ld", "method=%@, path=%@").
// `format` renders them: "%@" prints an object's description (nil prints
// "(null)"), "%d %i %u %x %X %o" with any length modifier print integers, "%f %e
// %g" doubles, "%s" text, "%c" a character, "%%" a percent sign; flags, width and
// precision work as in printf. An argument of another type than its specifier
// expects is converted (a number for "%@", an object's number value for "%d");
// a missing argument prints nothing. Pure function, safe on any thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "brivet/platform/object.h"

namespace brivet {

class FormatArg {
 public:
  FormatArg(const Object& o) : value_(o) {}                 // NOLINT: implicit by design
  FormatArg(const char* s) : value_(std::string_view(s)) {}  // NOLINT
  FormatArg(std::string_view s) : value_(s) {}               // NOLINT
  FormatArg(const std::string& s) : value_(std::string_view(s)) {}  // NOLINT
  template <class I, std::enable_if_t<std::is_integral_v<I>, int> = 0>
  FormatArg(I i)  // NOLINT
      : value_(std::is_signed_v<I> || std::is_same_v<I, bool> ? Value(static_cast<std::int64_t>(i))
                                                              : Value(static_cast<std::uint64_t>(i))) {}
  template <class F, std::enable_if_t<std::is_floating_point_v<F>, int> = 0>
  FormatArg(F d) : value_(static_cast<double>(d)) {}  // NOLINT
  // Anything with a description() (errors, keys, path trees...).
  template <class T>
    requires requires(const T& t) {
      { t.description() } -> std::convertible_to<std::string>;
    } && (!std::is_same_v<T, Object>)
  FormatArg(const T& t) : value_(std::string(t.description())) {}  // NOLINT

  using Value = std::variant<Object, std::string_view, std::string, std::int64_t, std::uint64_t, double>;
  const Value& value() const { return value_; }

 private:
  Value value_;
};

std::string format(std::string_view fmt, std::initializer_list<FormatArg> args);

template <class... Args>
std::string formatString(std::string_view fmt, const Args&... args) {
  return format(fmt, {FormatArg(args)...});
}

}  // namespace brivet
