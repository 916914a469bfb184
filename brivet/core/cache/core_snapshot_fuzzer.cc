// Fuzzes the core model's snapshot restore: the JSON text is read as a cache
// envelope from text (`CacheEnvelope::fromJSONText`) and from its dictionary
// (`fromDictionary` of the parsed text), restored into a model
// (`deserializeCache`, and `setCache` with the dictionary), read along the
// input's key paths, and saved again.
//
// Properties: both readers accept the same texts, find an envelope for the
// same texts, report it restored exactly when they find one, count the same
// unreadable entries and, when the text holds no relative expiry (which each
// reading resolves against its own clock), give the same envelope; a version
// read lies in the version range; an envelope read writes back to text that
// reads as the same envelope with nothing unreadable; a restore fails exactly
// when the text is not JSON and reports what the reader reports; reads end, a
// synchronous read answers one value per key path and a get ends with exactly
// one completion; the restored cache saves, and what it saves reads back as
// the envelope the model holds.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "brivet/core/cache/cache_envelope.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "brivet/testing/fuzz_input.h"

namespace {

using namespace brivet;

// Whether a wrapped leaf anywhere says "$expires" or "$refresh" relative to the moment it is read.
bool hasRelativeDates(const Object& node) {
  if (const Dictionary* d = node.asDictionary()) {
    for (const auto& [key, value] : *d) {
      const std::string_view k = key.stringValue();
      if ((k == "$expires" || k == "$refresh") && value.isNumber() && value.asNumber()->doubleValue() < 0) return true;
      if (hasRelativeDates(value)) return true;
    }
  } else if (const Array* a = node.asArray()) {
    for (const Object& element : *a) {
      if (hasRelativeDates(element)) return true;
    }
  }
  return false;
}

// The envelope a model holds, read through its dictionary form.
CacheEnvelope heldBy(TovInternalModel& model) {
  std::optional<CacheEnvelope> envelope = CacheEnvelope::fromDictionary(model.getCacheWithKeyPaths(std::nullopt));
  BRIVET_FUZZ_CHECK(envelope.has_value(), "a model's snapshot is an envelope");
  return *envelope;
}

void checkModel(TovInternalModel& model, const std::vector<std::string>& keyPaths) {
  BRIVET_FUZZ_CHECK(model.valuesForKeyPaths(keyPaths).size() == keyPaths.size(), "one value per key path");
  int completions = 0;
  auto subscription = model.getWithKeyPaths(keyPaths)->asStream().subscribeWithProgressBlock(
      nullptr, [&](const std::optional<Error>&) { ++completions; });
  DispatchQueue::main()->runUntil([&] { return completions > 0; }, std::chrono::seconds(30));
  model.internalModel().operationQueue()->sync([] {});
  DispatchQueue::main()->drain();
  BRIVET_FUZZ_CHECK(completions == 1, "a get ends with exactly one completion");
  model.getCacheWithKeyPaths(keyPaths);

  const Result<std::string> saved = model.serializeCacheWithKeyPaths(std::nullopt);
  BRIVET_FUZZ_CHECK(saved.ok(), "a restored cache saves");
  const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(saved.value());
  BRIVET_FUZZ_CHECK(back.ok() && back->has_value(), "a saved cache reads back");
  BRIVET_FUZZ_CHECK(**back == heldBy(model), "a saved cache reads back as the envelope the model holds");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const testing::FuzzInput input = testing::FuzzInput::from(data, size);
  SnapshotReport textReport;
  const Result<std::optional<CacheEnvelope>> fromText = CacheEnvelope::fromJSONText(input.json, &textReport);
  const Result<Object> parsed =
      parseJSON(input.json, JSONReadingOptions::MutableContainers | JSONReadingOptions::FragmentsAllowed);
  BRIVET_FUZZ_CHECK(fromText.ok() == parsed.ok(), "both readers accept the same texts");

  auto model = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  const Result<SnapshotReport> restored = model->deserializeCache(input.json);
  BRIVET_FUZZ_CHECK(restored.ok() == parsed.ok(), "a restore fails exactly when the text is not JSON");
  if (!parsed.ok()) return 0;
  BRIVET_FUZZ_CHECK(fromText->has_value() == textReport.restored(), "an envelope is found exactly when restored");
  BRIVET_FUZZ_CHECK(restored->restored() == textReport.restored() &&
                        restored->unreadableEntries == textReport.unreadableEntries,
                    "a restore reports what the reader reports");

  SnapshotReport dictionaryReport;
  const std::optional<CacheEnvelope> fromDictionary = CacheEnvelope::fromDictionary(parsed.value(), &dictionaryReport);
  BRIVET_FUZZ_CHECK(fromText->has_value() == fromDictionary.has_value(), "both readers find the same envelope");
  if (fromDictionary) {
    BRIVET_FUZZ_CHECK(fromDictionary->version <= kMaxCacheVersion && (*fromText)->version == fromDictionary->version,
                      "both readers read the same version, in the version range");
    BRIVET_FUZZ_CHECK(dictionaryReport.unreadableEntries == textReport.unreadableEntries,
                      "both readers count the same unreadable entries");
    if (!hasRelativeDates(parsed.value())) {
      BRIVET_FUZZ_CHECK(**fromText == *fromDictionary, "both readers give the same envelope");
      BRIVET_FUZZ_CHECK(heldBy(*model) == *fromDictionary, "a restored model holds the envelope");
    }
    // A number the text held that JSON cannot write back (an infinity) is the one reason not to write.
    if (const Result<std::string> written = (*fromText)->toJSONText(); written.ok()) {
      SnapshotReport again;
      const Result<std::optional<CacheEnvelope>> back = CacheEnvelope::fromJSONText(written.value(), &again);
      BRIVET_FUZZ_CHECK(back.ok() && back->has_value() && **back == **fromText,
                        "an envelope writes back to text that reads as the same envelope");
      BRIVET_FUZZ_CHECK(again.unreadableEntries == 0, "what is written back reads with nothing unreadable");
    }
  }
  checkModel(*model, input.keyPaths);

  auto other = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  const SnapshotReport set = other->setCache(parsed.value());
  BRIVET_FUZZ_CHECK(set.restored() == fromDictionary.has_value() &&
                        set.unreadableEntries == dictionaryReport.unreadableEntries,
                    "setCache reports what the dictionary reader reports");
  checkModel(*other, input.keyPaths);
  return 0;
}
