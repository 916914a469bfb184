// UTF-8 validation shared by the JSON writers (platform objects and graphs):
// every text going out as JSON is checked once. The readers check incoming text
// with findJSONTextFault (json_scalars.h), through the same sequence check.
// Rejects truncated and overlong sequences, surrogates and code points past
// U+10FFFF; ASCII runs are checked eight bytes at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace brivet::internal {

// The length in bytes (2 to 4) of the well-formed multi-byte sequence that
// starts at `p` (a byte of 0x80 or more), or 0 when it is not one.
inline std::size_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) {
  const unsigned c = *p;
  std::size_t n;
  unsigned cp;
  if ((c & 0xE0) == 0xC0) {
    n = 1;
    cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 2;
    cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 3;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (static_cast<std::size_t>(end - p) <= n) return 0;
  for (std::size_t i = 1; i <= n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  const bool overlong = (n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000);
  if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n + 1;
}

inline bool isValidUTF8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    if (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    const std::size_t length = utf8SequenceLength(p, end);
    if (length == 0) return false;
    p += length;
  }
  return true;
}

}  // namespace brivet::internal
