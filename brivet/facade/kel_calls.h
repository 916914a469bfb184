// Blocking and coroutine forms of the facade model's get and call.
//
// Each answers the result dictionary of the completion ({"lists": {"top":
// {"0": {"title": ...}}}}; an empty dictionary when the completion brought
// none) or its error, as a `Result`:
//
//   blocking::get(model, keyPaths, options)         waits, then answers
//   blocking::getValue<T>(model, keyPath, options)  one value, read as a T (typed_access.h; a
//                                                    leaf's {"value": ...} reads as its value)
//   blocking::call(model, function, options)
//   async::get / getValue / call                    the same for `co_await`, resumed on the main queue
//
// Options are named (`{.option = KelModelOption::ForceRemote}`) and key paths
// are `KeyPath`s (literals checked at compile time). `ReturnCacheDataAndFetch`
// answers twice, which these forms cannot: they refuse it with
// UnsupportedOption (use the completion form). The model's own errors arrive
// unchanged; the forms' own are errors of kAccessErrorDomain (TimedOut,
// OnMainQueue, UnsupportedOption, and those of typed reads).
//
// Threads: as for the core model's forms (tov_calls.h). The blocking forms
// must NEVER be called on the main queue's own thread: completions arrive
// there. Inside a main-queue block they fail at once with OnMainQueue;
// elsewhere on that thread they would wait out their time-out. Call them from
// another thread while something runs the main queue (an executor, `runUntil`,
// or a `MainQueueThread`). The coroutine forms may be awaited anywhere; the
// model must outlive the await, and `timeout` applies to blocking forms only.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/platform/coroutine.h"
#include "brivet/platform/error.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"
#include "brivet/platform/typed_access.h"

namespace brivet {

struct KelGetOptions {
  KelModelOption option = KelModelOption::Default;
  std::optional<std::string> taskName = {};                     // names the request in performance traces
  std::chrono::milliseconds timeout{10000};                // blocking forms
};

struct KelCallOptions {
  std::vector<Object> arguments = {};                // none when empty
  std::vector<KeyPath> returnKeyPathSuffixes = {};  // fetched behind the references the call returns
  std::vector<KeyPath> fetchKeyPaths = {};          // fetched once the call has run
  std::optional<std::string> taskName = {};
  std::chrono::milliseconds timeout{10000};  // blocking forms
};

namespace detail {
using KelDeliver = std::function<void(Result<Object, Error>)>;
using KelCancel = std::function<void()>;
KelCancel startKelGet(KelModel& model, const std::vector<KeyPath>& keyPaths, const KelGetOptions& options,
                      KelDeliver deliver);
KelCancel startKelCall(KelModel& model, const KeyPath& function, const KelCallOptions& options, KelDeliver deliver);
}  // namespace detail

namespace blocking {

Result<Object, Error> get(KelModel& model, const std::vector<KeyPath>& keyPaths, const KelGetOptions& options = {});
// The value at one key path (no range), read as a T.
template <class T = Object>
Result<T, Error> getValue(KelModel& model, const KeyPath& keyPath, const KelGetOptions& options = {}) {
  Result<Object, Error> answer = get(model, {keyPath}, options);
  if (!answer.ok()) return Failure{answer.error()};
  return readAt<T>(answer.value(), keyPath);
}
Result<Object, Error> call(KelModel& model, const KeyPath& function, const KelCallOptions& options = {});

}  // namespace blocking

namespace async {

inline MainQueueAwaitable<Result<Object, Error>> get(KelModel& model, std::vector<KeyPath> keyPaths,
                                                     KelGetOptions options = {}) {
  return MainQueueAwaitable<Result<Object, Error>>(
      [&model, keyPaths = std::move(keyPaths), options = std::move(options)](detail::KelDeliver deliver) {
        return detail::startKelGet(model, keyPaths, options, std::move(deliver));
      });
}
template <class T = Object>
MainQueueAwaitable<Result<T, Error>> getValue(KelModel& model, KeyPath keyPath, KelGetOptions options = {}) {
  return MainQueueAwaitable<Result<T, Error>>(
      [&model, keyPath = std::move(keyPath), options = std::move(options)](
          std::function<void(Result<T, Error>)> deliver) {
        return detail::startKelGet(model, {keyPath}, options, [keyPath, deliver](Result<Object, Error> answer) {
          if (!answer.ok()) {
            deliver(Result<T, Error>(Failure{answer.error()}));
          } else {
            deliver(readAt<T>(answer.value(), keyPath));
          }
        });
      });
}
inline MainQueueAwaitable<Result<Object, Error>> call(KelModel& model, KeyPath function, KelCallOptions options = {}) {
  return MainQueueAwaitable<Result<Object, Error>>(
      [&model, function = std::move(function), options = std::move(options)](detail::KelDeliver deliver) {
        return detail::startKelCall(model, function, options, std::move(deliver));
      });
}

}  // namespace async
}  // namespace brivet
