// Blocking and coroutine forms of the core model's get, set and call.
//
// Each answers the last dictionary the operation delivered (the model's
// platform form: {"lists": {"top": {"0": {"title": ...}}}}; an empty
// dictionary when it delivered none) or the failure, as a `Result`:
//
//   blocking::get(model, keyPaths, options)         waits, then answers
//   blocking::getValue<T>(model, keyPath, options)  one value, read as a T (typed_access.h)
//   blocking::set / setValue / call                 likewise
//   async::get / getValue / set / setValue / call   the same for `co_await`, resumed on the main queue
//
// Options are named (`{.refresh = true}`, `{.arguments = {...}}`) and the key
// paths are `KeyPath`s: literals are checked at compile time. Failures are the
// model's own errors (a core error keeps its domain and code, and its
// localized description is its `text()`: what failed, with the reason), or
// errors of kAccessErrorDomain: TimedOut,
// OnMainQueue, InvalidKeyPath (a value set at a path with a range), and those
// of typed reads.
//
// Threads: the blocking forms wait for answers that arrive on the main queue.
// NEVER call them on the main queue's own thread (from a completion, a stream
// block, a coroutine resumed by `async`, or an app's UI thread): there they
// fail at once with OnMainQueue where the library can tell (inside a
// main-queue block), and would otherwise wait out their time-out. Call them
// from another thread while something runs the main queue: an app's executor,
// a `runUntil` loop, or a `MainQueueThread` (main_queue_thread.h) in a program
// without a main loop. When the time-out passes, the operation is cancelled.
// The coroutine forms may be awaited anywhere; `timeout` does not apply to them
// (their operation ends when the model's does).
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "brivet/core/model/tov_model.h"
#include "brivet/platform/coroutine.h"
#include "brivet/platform/error.h"
#include "brivet/platform/key_path.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"
#include "brivet/platform/typed_access.h"

namespace brivet {

inline constexpr std::chrono::milliseconds kDefaultWaitTimeout{10000};

struct TovGetOptions {
  bool refresh = false;    // fetch every path, cached or not
  bool skipMerge = false;  // leave the answer out of the cache
  std::chrono::milliseconds timeout = kDefaultWaitTimeout;  // blocking forms
};

struct TovSetOptions {
  std::chrono::milliseconds timeout = kDefaultWaitTimeout;  // blocking forms
};

struct TovCallOptions {
  std::vector<Object> arguments = {};                // none when empty
  std::vector<KeyPath> returnKeyPathSuffixes = {};  // fetched behind the references the call returns
  std::vector<KeyPath> fetchKeyPaths = {};          // fetched from the function's object once it has run
  std::chrono::milliseconds timeout = kDefaultWaitTimeout;  // blocking forms
};

namespace detail {
using TovDeliver = std::function<void(Result<Object, Error>)>;
using TovCancel = std::function<void()>;
// Start one operation; the answer goes to `deliver` (once, from any thread).
TovCancel startGet(TovModel& model, const std::vector<KeyPath>& keyPaths, const TovGetOptions& options,
                   TovDeliver deliver);
TovCancel startSet(TovModel& model, const Object& jsonGraph, TovDeliver deliver);
TovCancel startCall(TovModel& model, const KeyPath& function, const TovCallOptions& options, TovDeliver deliver);
// The graph {"a": {"b": value}} that sets `value` at a key path without a range.
Result<Object, Error> graphSetting(const KeyPath& keyPath, const Object& value);
Result<Object, Error> waitForTov(std::string_view operation, std::chrono::milliseconds timeout,
                                 const std::function<TovCancel(TovDeliver)>& start);
}  // namespace detail

namespace blocking {

Result<Object, Error> get(TovModel& model, const std::vector<KeyPath>& keyPaths, const TovGetOptions& options = {});
// The value at one key path (no range), read as a T.
template <class T = Object>
Result<T, Error> getValue(TovModel& model, const KeyPath& keyPath, const TovGetOptions& options = {}) {
  Result<Object, Error> answer = get(model, {keyPath}, options);
  if (!answer.ok()) return Failure{answer.error()};
  return readAt<T>(answer.value(), keyPath);
}
// Sets the values of a JSON Graph dictionary on the server.
Result<Object, Error> set(TovModel& model, const Object& jsonGraph, const TovSetOptions& options = {});
// Sets one value (a C++ value, an application type, or a leaf built with leaf::atom) at a key path without a range.
Result<Object, Error> setValue(TovModel& model, const KeyPath& keyPath, const Object& value,
                               const TovSetOptions& options = {});
template <class T, std::enable_if_t<!std::is_convertible_v<const T&, const Object&>, int> = 0>
Result<Object, Error> setValue(TovModel& model, const KeyPath& keyPath, const T& value, const TovSetOptions& options = {}) {
  return setValue(model, keyPath, toObject(value), options);
}
// Calls the function at `function` ("lists.top.push").
Result<Object, Error> call(TovModel& model, const KeyPath& function, const TovCallOptions& options = {});

}  // namespace blocking

namespace async {

inline MainQueueAwaitable<Result<Object, Error>> get(TovModel& model, std::vector<KeyPath> keyPaths,
                                                     TovGetOptions options = {}) {
  return MainQueueAwaitable<Result<Object, Error>>(
      [&model, keyPaths = std::move(keyPaths), options](detail::TovDeliver deliver) {
        return detail::startGet(model, keyPaths, options, std::move(deliver));
      });
}
template <class T = Object>
MainQueueAwaitable<Result<T, Error>> getValue(TovModel& model, KeyPath keyPath, TovGetOptions options = {}) {
  return MainQueueAwaitable<Result<T, Error>>(
      [&model, keyPath = std::move(keyPath), options](std::function<void(Result<T, Error>)> deliver) {
        return detail::startGet(model, {keyPath}, options, [keyPath, deliver](Result<Object, Error> answer) {
          if (!answer.ok()) {
            deliver(Result<T, Error>(Failure{answer.error()}));
          } else {
            deliver(readAt<T>(answer.value(), keyPath));
          }
        });
      });
}
inline MainQueueAwaitable<Result<Object, Error>> set(TovModel& model, Object jsonGraph) {
  return MainQueueAwaitable<Result<Object, Error>>([&model, jsonGraph = std::move(jsonGraph)](detail::TovDeliver deliver) {
    return detail::startSet(model, jsonGraph, std::move(deliver));
  });
}
inline MainQueueAwaitable<Result<Object, Error>> setValue(TovModel& model, KeyPath keyPath, Object value) {
  return MainQueueAwaitable<Result<Object, Error>>(
      [&model, keyPath = std::move(keyPath), value = std::move(value)](detail::TovDeliver deliver) -> detail::TovCancel {
        Result<Object, Error> graph = detail::graphSetting(keyPath, value);
        if (!graph.ok()) {
          deliver(Failure{graph.error()});
          return nullptr;
        }
        return detail::startSet(model, graph.value(), std::move(deliver));
      });
}
inline MainQueueAwaitable<Result<Object, Error>> call(TovModel& model, KeyPath function, TovCallOptions options = {}) {
  return MainQueueAwaitable<Result<Object, Error>>(
      [&model, function = std::move(function), options = std::move(options)](detail::TovDeliver deliver) {
        return detail::startCall(model, function, options, std::move(deliver));
      });
}

}  // namespace async
}  // namespace brivet
