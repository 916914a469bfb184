// What the model-level fuzz harnesses share: the layout of their inputs and
// the check that stops a run when a property fails (fuzz harnesses only).
//
// An input is lines of key paths and directives, then a line "--", then JSON
// text (a server answer, a merge input or a snapshot), so seed files can be
// written by hand:
//
//   lists.top.@range(0,2).title
//   !fail 500
//   --
//   {"jsonGraph": {...}, "paths": [...]}
//
// Without a "--" line the whole input is the JSON text. A directive line
// starts with "!" (its word and argument are the harness's to read); every
// other line is a key path. At most `kMaxKeyPaths` key paths are kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace brivet::testing {

struct FuzzInput {
  static constexpr std::size_t kMaxKeyPaths = 16;

  std::vector<std::string> keyPaths;
  std::vector<std::string> directives;  // without the "!"
  std::string json;

  bool has(std::string_view directive) const {
    for (const std::string& d : directives) {
      if (d == directive || d.rfind(std::string(directive) + " ", 0) == 0) return true;
    }
    return false;
  }
  // The integer after a directive's word ("fail 500" gives 500), or `fallback`.
  long long argument(std::string_view directive, long long fallback) const {
    for (const std::string& d : directives) {
      if (d.rfind(std::string(directive) + " ", 0) == 0) return std::atoll(d.c_str() + directive.size() + 1);
    }
    return fallback;
  }

  static FuzzInput from(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    FuzzInput input;
    std::size_t separator = std::string_view::npos;
    if (text.rfind("--\n", 0) == 0) {
      separator = 0;
    } else if (std::size_t found = text.find("\n--\n"); found != std::string_view::npos) {
      separator = found + 1;
    }
    if (separator == std::string_view::npos) {
      input.json = std::string(text);
      return input;
    }
    input.json = std::string(text.substr(separator + 3));
    std::string_view head = text.substr(0, separator);
    while (!head.empty()) {
      const std::size_t end = head.find('\n');
      const std::string_view line = head.substr(0, end);
      if (!line.empty() && line[0] == '!') {
        input.directives.emplace_back(line.substr(1));
      } else if (input.keyPaths.size() < kMaxKeyPaths) {
        input.keyPaths.emplace_back(line);
      }
      if (end == std::string_view::npos) break;
      head.remove_prefix(end + 1);
    }
    return input;
  }
};

// Stops the run (libFuzzer keeps the input) when a property does not hold.
#define BRIVET_FUZZ_CHECK(condition, what)                                              \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      std::fprintf(stderr, "property failed: %s (%s:%d)\n", what, __FILE__, __LINE__); \
      std::abort();                                                                     \
    }                                                                                   \
  } while (false)

}  // namespace brivet::testing
