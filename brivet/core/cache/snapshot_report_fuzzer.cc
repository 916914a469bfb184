// Snapshot text as a restore reads it: whatever the bytes, reading never crashes or hangs, an envelope it gives
// lies in the version range, and
//  * the two readers agree: the text read as platform objects and then as a dictionary gives the same envelope
//    (or the same refusal) and the same count of unreadable entries (a relative "$expires" or "$refresh" is read
//    against the moment of reading, so graphs that may hold one are compared by version and counts only);
//  * what is read writes back to text that reads as the same envelope, with nothing unreadable.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "brivet/core/cache/cache_envelope.h"
#include "brivet/platform/json.h"

// A property that does not hold: say which, then stop (libFuzzer keeps the input).
#define CHECK_PROPERTY(condition)                                      \
  do {                                                                 \
    if (!(condition)) {                                                \
      std::fprintf(stderr, "property failed: %s\n", #condition);       \
      std::abort();                                                    \
    }                                                                  \
  } while (false)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brivet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  SnapshotReport report;
  const Result<std::optional<CacheEnvelope>> read = CacheEnvelope::fromJSONText(text, &report);
  const Result<Object> parsed =
      parseJSON(text, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  CHECK_PROPERTY(read.ok() == parsed.ok());
  if (!read.ok()) return 0;
  const std::optional<CacheEnvelope>& envelope = read.value();
  CHECK_PROPERTY(envelope.has_value() == report.restored());

  SnapshotReport dictionaryReport;
  const std::optional<CacheEnvelope> fromDictionary = CacheEnvelope::fromDictionary(parsed.value(), &dictionaryReport);
  CHECK_PROPERTY(fromDictionary.has_value() == envelope.has_value());
  if (!envelope) return 0;
  CHECK_PROPERTY(envelope->version <= kMaxCacheVersion);
  CHECK_PROPERTY(fromDictionary->version == envelope->version);
  CHECK_PROPERTY(dictionaryReport.unreadableEntries == report.unreadableEntries);
  // Those keys can only be spelled with their letters or with \u escapes.
  const bool mayHoldRelativeDates = text.find("expires") != std::string_view::npos ||
                                    text.find("refresh") != std::string_view::npos ||
                                    text.find("\\u") != std::string_view::npos;
  if (!mayHoldRelativeDates) CHECK_PROPERTY(*fromDictionary == *envelope);

  const Result<std::string> written = envelope->toJSONText();
  if (!written.ok()) return 0;  // a number the text held that JSON cannot write back (an infinity)
  SnapshotReport again;
  const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(written.value(), &again);
  CHECK_PROPERTY(back.ok() && back.value().has_value());
  CHECK_PROPERTY(*back.value() == *envelope);
  CHECK_PROPERTY(again.unreadableEntries == 0);
  return 0;
}
