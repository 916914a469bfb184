// KeyPath: a dotted key path ("lists.top.@range(0,9).title") checked before use.
//
// Both models address data by key-path strings: keys joined by ".", a key
// written "@range(from,to)" standing for every integer from `from` to `to`.
// The models read any string and never fail: an empty component is dropped, a
// misspelt range becomes a text key, a reversed range stops the program when
// a model expands it, and the two models read some spellings differently
// ("@RANGE(1,2)" is a range to one and a text key to the other). A `KeyPath`
// holds only paths that every model reads the same way, as the application
// meant them:
//
//   * at least one component, at most 512, none empty;
//   * a component that mentions "@range" (in any case) is exactly
//     "@range(from,to)": lower case, decimal bounds without signs or blanks,
//     nothing after ")", from <= to <= 2147483647;
//   * UTF-8 text.
//
// Three ways to make one:
//
//   * from a string literal, checked at compile time: any function taking a
//     `KeyPath` accepts "lists.top.0.title", and `"lists.top.0.title"_path`
//     (namespace brivet::literals) makes one where a std::string is expected.
//     A rejected literal does not compile; the compiler names the rule it
//     breaks (a function in brivet::detail::rejected_key_path).
//   * `KeyPath::parse(text)` for text made at run time;
//   * `path("videos", id, "title")` / `path("lists", "top", range(0, 9), "title")`,
//     or a `KeyPathBuilder`, from keys (text, integers, ranges, other key paths),
//     each checked on its own: a text key holding "." or naming a range is refused
//     rather than read as two keys or as a range.
//
// The last two answer a `Result` whose error (domain `kAccessErrorDomain`, code
// `AccessErrorCode::InvalidKeyPath`) says which component breaks which rule.
//
// A KeyPath converts to std::string, so it goes wherever the models take key-path
// strings. Copies are cheap: a literal is a view of static storage, text made at
// run time is shared. Immutable; share freely across threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "brivet/platform/error.h"
#include "brivet/platform/result.h"

namespace brivet {

// The domain of the errors the conveniences report: key paths refused, typed
// reads that found something else, waits that could not complete.
inline constexpr std::string_view kAccessErrorDomain = "io.brivet.Brivet.Access";
enum class AccessErrorCode : std::int64_t {
  InvalidKeyPath = 1,     // a key path, or a key given to the path builder, was refused
  WrongType = 2,          // a typed read found a value of another kind
  NoValue = 3,            // a typed read found nothing where it looked
  OutOfRange = 4,         // a number that the requested type cannot hold
  TimedOut = 5,           // a blocking call gave up waiting
  OnMainQueue = 6,        // a blocking call made on the main queue's own thread
  UnsupportedOption = 7,  // an option the blocking and coroutine forms cannot honour
};
// An error of kAccessErrorDomain with `message` as its localized description.
Error accessError(AccessErrorCode code, std::string message);

// The grammar of key-path strings. The core's path reader and the KeyPath checks
// both use these functions, at run time and in constant evaluation; not API.
namespace detail {

inline constexpr std::size_t kMaxKeyPathComponents = 512;
inline constexpr std::int64_t kMaxKeyPathRangeBound = 2147483647;

// Calls `f(component)` for each text between dots, empty ones included
// ("a..b" gives "a", "", "b"; "" gives one empty component). An `f` that
// answers a bool stops the walk by answering false.
template <class F>
constexpr void forEachKeyPathComponent(std::string_view text, F&& f) {
  std::size_t start = 0;
  for (;;) {
    std::size_t dot = start;
    while (dot < text.size() && text[dot] != '.') ++dot;
    if constexpr (std::is_same_v<decltype(f(text)), bool>) {
      if (!f(text.substr(start, dot - start))) return;
    } else {
      f(text.substr(start, dot - start));
    }
    if (dot == text.size()) return;
    start = dot + 1;
  }
}

// Reads a run of decimal digits starting at `pos`, moving `pos` past it. False
// when there is no digit; `fits` tells whether the value fits 64 bits.
constexpr bool readKeyPathDigits(std::string_view s, std::size_t& pos, std::int64_t& value, bool& fits) {
  const std::size_t start = pos;
  value = 0;
  fits = true;
  while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
    const std::int64_t digit = s[pos] - '0';
    if (fits && value > (INT64_MAX - digit) / 10) fits = false;
    if (fits) value = value * 10 + digit;
    ++pos;
  }
  return pos != start;
}

// A component that starts with "@range(from,to)", "range" in any case.
struct KeyPathRange {
  bool matched = false;
  std::int64_t from = 0;
  std::int64_t to = 0;
  std::size_t end = 0;  // the index after ")": text from there on is ignored
};
constexpr KeyPathRange matchKeyPathRange(std::string_view c) {
  constexpr std::string_view kWord = "range";
  KeyPathRange r;
  if (c.size() < 7 || c[0] != '@' || c[6] != '(') return r;
  for (std::size_t i = 0; i < kWord.size(); ++i) {
    if ((c[1 + i] | 0x20) != kWord[i]) return r;
  }
  std::size_t pos = 7;
  bool fromFits = false;
  bool toFits = false;
  if (!readKeyPathDigits(c, pos, r.from, fromFits) || pos >= c.size() || c[pos] != ',') return r;
  ++pos;
  if (!readKeyPathDigits(c, pos, r.to, toFits) || pos >= c.size() || c[pos] != ')') return r;
  r.matched = fromFits && toFits;
  r.end = pos + 1;
  return r;
}

// Whether "@range" occurs anywhere in `c`, in any case.
constexpr bool mentionsKeyPathRange(std::string_view c) {
  constexpr std::string_view kWord = "@range";
  for (std::size_t i = 0; i + kWord.size() <= c.size(); ++i) {
    bool same = true;
    for (std::size_t j = 0; j < kWord.size() && same; ++j) {
      const char ch = c[i + j];
      same = j == 0 ? ch == '@' : (ch | 0x20) == kWord[j];
    }
    if (same) return true;
  }
  return false;
}

constexpr bool isValidKeyPathUTF8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const auto b = static_cast<unsigned char>(s[i]);
    if (b < 0x80) {
      ++i;
      continue;
    }
    // The lead byte gives the sequence's length and the smallest code point it may encode.
    std::size_t n = 0;
    std::uint32_t cp = 0;
    std::uint32_t min = 0;
    if ((b & 0xE0) == 0xC0) {
      n = 1;
      cp = b & 0x1Fu;
      min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      n = 2;
      cp = b & 0x0Fu;
      min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      n = 3;
      cp = b & 0x07u;
      min = 0x10000;
    } else {
      return false;
    }
    if (i + n >= s.size()) return false;
    for (std::size_t k = 1; k <= n; ++k) {
      const auto c = static_cast<unsigned char>(s[i + k]);
      if ((c & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (c & 0x3Fu);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += n + 1;
  }
  return true;
}

// What makes a key path unfit, and where.
enum class KeyPathProblem : std::uint8_t {
  None,
  Empty,              // no text at all
  EmptyComponent,     // "a..b", ".a", "a."
  TooManyComponents,  // more than 512
  MalformedRange,     // mentions "@range" but is not exactly "@range(from,to)"
  RangeNotLowerCase,  // "@RANGE(1,2)": a range to the core model, a text key to the legacy model
  ReversedRange,      // from > to
  RangeTooLarge,      // a bound beyond 2147483647 (the legacy model reads 32-bit bounds)
  NotUTF8,
};
struct KeyPathCheck {
  KeyPathProblem problem = KeyPathProblem::None;
  std::size_t component = 0;  // 0-based index of the offending component
};

// The checks of one component (not empty, ranges exact), shared by the
// whole-path check and the path builder.
constexpr KeyPathProblem checkKeyPathComponent(std::string_view c) {
  if (c.empty()) return KeyPathProblem::EmptyComponent;
  if (!mentionsKeyPathRange(c)) return KeyPathProblem::None;
  const KeyPathRange r = matchKeyPathRange(c);
  if (!r.matched || r.end != c.size()) return KeyPathProblem::MalformedRange;
  if (c.substr(1, 5) != "range") return KeyPathProblem::RangeNotLowerCase;
  if (r.from > r.to) return KeyPathProblem::ReversedRange;
  if (r.to > kMaxKeyPathRangeBound) return KeyPathProblem::RangeTooLarge;
  return KeyPathProblem::None;
}

constexpr KeyPathCheck checkKeyPath(std::string_view text) {
  if (text.empty()) return {KeyPathProblem::Empty, 0};
  if (!isValidKeyPathUTF8(text)) return {KeyPathProblem::NotUTF8, 0};
  KeyPathCheck check;
  std::size_t index = 0;
  forEachKeyPathComponent(text, [&](std::string_view c) {
    if (check.problem == KeyPathProblem::None) {
      if (index == kMaxKeyPathComponents) {
        check = {KeyPathProblem::TooManyComponents, index};
      } else if (const KeyPathProblem p = checkKeyPathComponent(c); p != KeyPathProblem::None) {
        check = {p, index};
      }
    }
    ++index;
  });
  return check;
}

// Named so that the compiler's message for a rejected literal says what is wrong:
// none of them is defined, and calling one ends the constant evaluation.
namespace rejected_key_path {
void the_key_path_is_empty();
void a_component_is_empty_check_for_doubled_leading_or_trailing_dots();
void the_key_path_has_more_than_512_components();
void a_component_mentions_at_range_but_is_not_exactly_at_range_from_to();
void write_at_range_in_lower_case();
void a_range_ends_before_it_starts();
void a_range_bound_is_beyond_2147483647();
void the_key_path_is_not_utf8();
}  // namespace rejected_key_path

}  // namespace detail

class KeyPath {
 public:
  // A literal, checked at compile time (implicit, so that literals go where
  // key paths are taken). Only constant text compiles; use `parse` for the rest.
  consteval KeyPath(const char* literal)  // NOLINT: implicit by design
      : literal_(literal) {
    using namespace detail::rejected_key_path;
    switch (detail::checkKeyPath(literal_).problem) {
      case detail::KeyPathProblem::None: break;
      case detail::KeyPathProblem::Empty: the_key_path_is_empty(); break;
      case detail::KeyPathProblem::EmptyComponent: a_component_is_empty_check_for_doubled_leading_or_trailing_dots(); break;
      case detail::KeyPathProblem::TooManyComponents: the_key_path_has_more_than_512_components(); break;
      case detail::KeyPathProblem::MalformedRange: a_component_mentions_at_range_but_is_not_exactly_at_range_from_to(); break;
      case detail::KeyPathProblem::RangeNotLowerCase: write_at_range_in_lower_case(); break;
      case detail::KeyPathProblem::ReversedRange: a_range_ends_before_it_starts(); break;
      case detail::KeyPathProblem::RangeTooLarge: a_range_bound_is_beyond_2147483647(); break;
      case detail::KeyPathProblem::NotUTF8: the_key_path_is_not_utf8(); break;
    }
  }

  // Text made at run time: the key path, or an InvalidKeyPath error naming the
  // offending component and the rule.
  static Result<KeyPath, Error> parse(std::string_view text);

  // A literal type (so that literals and `_path` are constants): run-time text
  // is held by a reference count of its own, touched only when there is some.
  constexpr KeyPath(const KeyPath& other) : literal_(other.literal_), owned_(other.owned_) {
    if (owned_ != nullptr) retain(owned_);
  }
  constexpr KeyPath(KeyPath&& other) noexcept : literal_(other.literal_), owned_(other.owned_) {
    other.owned_ = nullptr;
  }
  constexpr KeyPath& operator=(const KeyPath& other) {
    if (other.owned_ != nullptr) retain(other.owned_);
    if (owned_ != nullptr) release(owned_);
    literal_ = other.literal_;
    owned_ = other.owned_;
    return *this;
  }
  constexpr KeyPath& operator=(KeyPath&& other) noexcept {
    if (this != &other) {
      if (owned_ != nullptr) release(owned_);
      literal_ = other.literal_;
      owned_ = other.owned_;
      other.owned_ = nullptr;
    }
    return *this;
  }
  constexpr ~KeyPath() {
    if (owned_ != nullptr) release(owned_);
  }

  // The key path as the models read it. Valid as long as this KeyPath (or a copy) lives.
  std::string_view text() const;
  std::string string() const { return std::string(text()); }
  operator std::string() const { return string(); }  // NOLINT: goes where key-path strings go

  // The components, as views of text().
  std::vector<std::string_view> components() const;
  bool hasRange() const;

  friend bool operator==(const KeyPath& a, const KeyPath& b) { return a.text() == b.text(); }

 private:
  friend class KeyPathBuilder;
  struct Shared;  // the text and its reference count
  explicit KeyPath(std::string text);
  static void retain(const Shared* shared) noexcept;
  static void release(const Shared* shared) noexcept;

  std::string_view literal_;
  const Shared* owned_ = nullptr;
};

// A range key for the path builder: every integer from `from` to `to`.
struct KeyRange {
  std::int64_t from;
  std::int64_t to;
};
constexpr KeyRange range(std::int64_t from, std::int64_t to) { return KeyRange{from, to}; }

// Builds a key path one key at a time, checking each; the first refused key
// makes `build` answer its error.
class KeyPathBuilder {
 public:
  KeyPathBuilder& add(std::string_view key);  // one text key: not empty, no ".", not a range
  KeyPathBuilder& add(const char* key) { return add(std::string_view(key)); }
  KeyPathBuilder& add(const std::string& key) { return add(std::string_view(key)); }
  KeyPathBuilder& add(std::int64_t key);  // written in decimal
  KeyPathBuilder& add(std::uint64_t key);
  KeyPathBuilder& add(KeyRange key);      // "@range(from,to)": 0 <= from <= to <= 2147483647
  KeyPathBuilder& add(const KeyPath& keys);  // every component of another key path
  template <class I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool> &&
                                          !std::is_same_v<I, char> && !std::is_same_v<I, std::int64_t> &&
                                          !std::is_same_v<I, std::uint64_t>,
                                      int> = 0>
  KeyPathBuilder& add(I key) {
    if constexpr (std::is_signed_v<I>) {
      return add(static_cast<std::int64_t>(key));
    } else {
      return add(static_cast<std::uint64_t>(key));
    }
  }

  Result<KeyPath, Error> build() const;

 private:
  void append(std::string_view component);
  std::string text_;
  std::size_t count_ = 0;
  std::string error_;  // the first refusal, empty when none
};

// path(key, ...): the key path of these keys (see KeyPathBuilder::add).
template <class... Keys>
Result<KeyPath, Error> path(const Keys&... keys) {
  static_assert(sizeof...(Keys) > 0, "a key path needs at least one key");
  KeyPathBuilder builder;
  (builder.add(keys), ...);
  return builder.build();
}

namespace literals {
// "lists.top.0.title"_path: a KeyPath checked at compile time.
consteval KeyPath operator""_path(const char* text, std::size_t /*length*/) { return KeyPath(text); }
}  // namespace literals

}  // namespace brivet
