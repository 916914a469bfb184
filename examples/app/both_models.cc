// A small app's use of both models, from in-memory sources (no network, no files): a get through a reference, a
// 64-bit integer, a second get answered from the cache, a snapshot and its restore into a new model. It exits 0
// when every check holds and names the first that fails.
//
// Built as it is, it is the check the 32-bit and libc++ builds run; built with BRIVET_SIZE_BASELINE it is the same
// program without Brivet, against which scripts/size_report.sh measures what linking Brivet adds.
#include <cstdint>
#include <cstdio>

#ifndef BRIVET_SIZE_BASELINE
#include <memory>
#include <optional>
#include <string>

#include "brivet/core/model/tov_model.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#endif

namespace {

constexpr std::int64_t kViews = 9007199254740993;  // 2^53 + 1: no double holds it

int failed(const char* check) {
  std::fprintf(stderr, "both_models: %s\n", check);
  return 1;
}

#ifndef BRIVET_SIZE_BASELINE
using namespace brivet;

// The core model's HTTP client: one JSON Graph answer from memory, counting requests.
class InMemoryClient final : public TovHTTPClientProtocol {
 public:
  std::shared_ptr<TovHTTPDataSourceResponseStream> GET(const std::string& /*url*/, const Object& /*params*/) override {
    ++requests;
    return std::make_shared<TovHTTPDataSourceResponseStream>(
        [](ProgressBlock progress, CompletionBlock completion) {
          progress(parseJSON(R"({"jsonGraph": {
              "lists": {"top": {"0": {"$type": "ref", "value": ["videos", "v1"]}}},
              "videos": {"v1": {"title": "One", "views": 9007199254740993}}}})")
                       .valueOr(Object()));
          completion(std::nullopt);
        },
        [] {});
  }
  std::shared_ptr<TovHTTPDataSourceResponseStream> POST(const std::string& /*url*/, const Object& /*params*/) override {
    return std::make_shared<TovHTTPDataSourceResponseStream>(
        [](ProgressBlock, CompletionBlock completion) { completion(httpFailure(405, Object())); }, [] {});
  }
  int requests = 0;
};

// The facade's data source: the same graph in the legacy form (references as arrays of keys).
class InMemoryDataSource final : public KelDataSource {
 public:
  bool enableCacheExpirationInBrivet(KelModel& /*model*/) override { return false; }
  Object getWithParams(KelModel& /*model*/, const Object& /*params*/, const std::optional<UUID>& /*uuid*/,
                       KelDataSourceCompletion completion) override {
    ++requests;
    completion(parseJSON(R"({"value": {"lists": {"top": {"0": ["videos", "v1"]}},
                                       "videos": {"v1": {"title": "One", "views": 9007199254740993}}}})",
                         JSONReadingOptions::MutableContainers)
                   .valueOr(Object()),
               Object(), std::nullopt);
    return Object();
  }
  Object callWithParams(KelModel& /*model*/, const Object& /*params*/, const std::optional<UUID>& /*uuid*/,
                        KelDataSourceCompletion completion) override {
    completion(Object(), Object(), Error::withDescription("app", 1, "read-only"));
    return Object();
  }
  int requests = 0;
};

bool sameViews(const Object& views) { return views.asNumber() != nullptr && views.asNumber()->int64Value() == kViews; }

int coreModel() {
  const auto client = std::make_shared<InMemoryClient>();
  const auto model = TovBrivet::createTovModelWithUrl("memory://graph", client);
  const std::vector<std::string> paths{"lists.top.0.title", "lists.top.0.views"};
  for (int round = 0; round < 2; ++round) {
    bool done = false;
    Object result;
    model->getKeyPaths(paths, [&](const Object& value, const std::optional<Error>& error) {
      if (!error) result = value;
      done = true;
    });
    if (!DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10))) return failed("core: no answer");
    if (result.valueForKeyPath("lists.top.0.title").stringValue() != "One") return failed("core: title");
    if (!sameViews(result.valueForKeyPath("lists.top.0.views"))) return failed("core: 64-bit integer");
  }
  if (client->requests != 1) return failed("core: the second get was not answered from the cache");
  const Result<std::string> snapshot = model->serializeCacheWithKeyPaths(std::nullopt);
  if (!snapshot.ok()) return failed("core: snapshot");
  const auto restored = TovBrivet::createTovModelWithUrl("memory://graph", client);
  if (!restored->deserializeCache(snapshot.value()).ok()) return failed("core: restore");
  if (!sameViews(restored->valueForKeyPath("lists.top.0.views"))) return failed("core: restored 64-bit integer");
  return 0;
}

int facadeModel() {
  const auto source = std::make_shared<InMemoryDataSource>();
  const std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
  model->setDataSource(source);
  const std::vector<std::string> paths{"lists.top.0.title", "lists.top.0.views"};
  for (int round = 0; round < 2; ++round) {
    bool done = false;
    Object result;
    model->getKeyPaths(paths, std::nullopt, [&](Object value, std::optional<Error> error) {
      if (!error) result = std::move(value);
      done = true;
    });
    if (!DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10))) {
      return failed("facade: no answer");
    }
    if (result.valueForKeyPath("lists.top.0.title").stringValue() != "One") return failed("facade: title");
    if (!sameViews(result.valueForKeyPath("lists.top.0.views"))) return failed("facade: 64-bit integer");
  }
  if (source->requests != 1) return failed("facade: the second get was not answered from the cache");
  const Result<std::string> snapshot = model->serializeCacheWithKeyPaths(std::nullopt);
  if (!snapshot.ok()) return failed("facade: snapshot");
  const std::shared_ptr<KelModel> restored = KelBrivet::createModel(std::nullopt, std::nullopt);
  if (!restored->deserializeCache(snapshot.value()).ok()) return failed("facade: restore");
  if (restored->valueForKeyPath("lists.top.0.title").stringValue() != "One") return failed("facade: restored title");
  if (!sameViews(restored->valueForKeyPath("lists.top.0.views"))) return failed("facade: restored 64-bit integer");
  return 0;
}
#endif

}  // namespace

int main() {
#ifdef BRIVET_SIZE_BASELINE
  // What the app does besides Brivet: the same output path, so that only Brivet's part differs.
  if (kViews != 9007199254740993) return failed("baseline");
#else
  if (coreModel() != 0 || facadeModel() != 0) return 1;
#endif
  std::printf("both_models: every check passed (%zu-bit)\n", sizeof(void*) * 8);
  return 0;
}
