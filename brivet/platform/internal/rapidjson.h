// The one place RapidJSON is included, so every translation unit sees the same
// configuration (SIMD whitespace skipping where the target has it).
//
// Readers take RapidJSON's tokenizer but not its number conversion: RapidJSON
// refuses some valid numbers ("0e400", integers of more than 308 digits before
// a negative exponent) before any handler sees their text, and its
// full-precision mode misreads others. `BRIVET_RAPIDJSON_READ_NUMBERS(flags,
// Handler)`, placed at namespace scope after the handler and before the parse,
// replaces the number reading of that (flags, handler) pair with the library's
// own (brivet/platform/internal/json_scalars.h). The handler provides
// `const char* textEnd() const` (the end of the in-place buffer) and the usual
// `Int64`, `Uint64` and `Double` events.
#pragma once

#if defined(__SSE4_2__)
#define RAPIDJSON_SSE42 1
#elif defined(__SSE2__)
#define RAPIDJSON_SSE2 1
#elif defined(__ARM_NEON)
#define RAPIDJSON_NEON 1
#endif
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstring>

#include "brivet/platform/internal/json_scalars.h"

namespace brivet::internal {

// The buffer and writers every JSON text of the library is written with.
// RapidJSON's vector string scan, used by its writer on a plain StringBuffer
// (like the one in its reader), takes the control characters 0x1A to 0x1F for
// plain text and writes them raw, which no reader accepts. On a buffer type of
// our own the writer uses the scan defined below instead, which stops at every
// byte below 0x20; the functions beside it give the writer the buffer's
// unchecked appends, as RapidJSON does for its own buffer.
class JSONTextBuffer : public rapidjson::StringBuffer {};
inline void PutReserve(JSONTextBuffer& buffer, std::size_t count) { buffer.Reserve(count); }
inline void PutUnsafe(JSONTextBuffer& buffer, char c) { buffer.PutUnsafe(c); }
inline void PutN(JSONTextBuffer& buffer, char c, std::size_t n) { std::memset(buffer.Push(n), c, n); }
using JSONTextWriter = rapidjson::Writer<JSONTextBuffer>;
using JSONTextPrettyWriter = rapidjson::PrettyWriter<JSONTextBuffer>;

}  // namespace brivet::internal

#if defined(RAPIDJSON_SSE2) || defined(RAPIDJSON_SSE42)
// Copies the run of bytes that need no escape (anything but a quote, a
// backslash or a byte below 0x20) sixteen at a time, never reading past the
// string; the writer escapes or copies the byte it stops at, and the short
// tail, one at a time. Answers whether bytes remain.
template <>
inline bool rapidjson::Writer<brivet::internal::JSONTextBuffer>::ScanWriteUnescapedString(rapidjson::StringStream& is,
                                                                                         std::size_t length) {
  const char* p = is.src_;
  const char* const end = is.head_ + length;
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i lastControl = _mm_set1_epi8(0x1F);
  while (end - p >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i control = _mm_cmpeq_epi8(_mm_max_epu8(block, lastControl), lastControl);  // block <= 0x1F
    const __m128i special =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(block, quote), _mm_cmpeq_epi8(block, backslash)), control);
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(special));
    if (mask != 0) {
      const unsigned plain = static_cast<unsigned>(__builtin_ctz(mask));
      std::memcpy(os_->PushUnsafe(plain), p, plain);
      p += plain;
      break;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(os_->PushUnsafe(16)), block);
    p += 16;
  }
  is.src_ = p;
  return p < end;
}
#endif

namespace brivet::internal {

// Reads the number at the stream's position and hands it to the handler.
// Answers the parse error to report (kParseErrorNone when all went well) and
// its offset.
template <class Handler>
rapidjson::ParseErrorCode readRapidJSONNumber(rapidjson::InsituStringStream& is, Handler& handler,
                                              std::size_t* errorOffset) {
  const std::size_t start = is.Tell();
  const JSONNumberRead read = readJSONNumber(is.src_, handler.textEnd());
  switch (read.fault()) {
    case JSONNumberFault::None: break;
    case JSONNumberFault::MissingIntegerDigit:
      *errorOffset = start + read.length();
      return rapidjson::kParseErrorValueInvalid;
    case JSONNumberFault::MissingFraction:
      *errorOffset = start + read.length();
      return rapidjson::kParseErrorNumberMissFraction;
    case JSONNumberFault::MissingExponent:
      *errorOffset = start + read.length();
      return rapidjson::kParseErrorNumberMissExponent;
    case JSONNumberFault::OutOfRange:
      *errorOffset = start;
      return rapidjson::kParseErrorNumberTooBig;
  }
  is.src_ += read.length();
  bool accepted = false;
  switch (read.kind()) {
    case JSONNumberRead::Kind::Signed: accepted = handler.Int64(read.signedValue()); break;
    case JSONNumberRead::Kind::Unsigned: accepted = handler.Uint64(read.unsignedValue()); break;
    case JSONNumberRead::Kind::Double: accepted = handler.Double(read.doubleValue()); break;
  }
  if (!accepted) {
    *errorOffset = start;
    return rapidjson::kParseErrorTermination;
  }
  return rapidjson::kParseErrorNone;
}

}  // namespace brivet::internal

// An explicit specialization of the reader's private number routine for one
// (flags, handler) pair; the names are checked by the compiler, so a RapidJSON
// whose reader differs fails to build rather than reading numbers its own way.
#define BRIVET_RAPIDJSON_READ_NUMBERS(kFlags, HandlerType)                                                     \
  template <>                                                                                                  \
  template <>                                                                                                  \
  void rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator>::ParseNumber<  \
      (kFlags), rapidjson::InsituStringStream, HandlerType>(rapidjson::InsituStringStream & is,                \
                                                            HandlerType & handler) {                           \
    std::size_t offset = 0;                                                                                    \
    const rapidjson::ParseErrorCode code = brivet::internal::readRapidJSONNumber(is, handler, &offset);        \
    if (code != rapidjson::kParseErrorNone) SetParseError(code, offset);                                       \
  }
