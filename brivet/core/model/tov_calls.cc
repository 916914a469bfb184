#include "brivet/core/model/tov_calls.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "brivet/platform/internal/blocking.h"

namespace brivet {
namespace detail {
namespace {

std::vector<std::string> strings(const std::vector<KeyPath>& keyPaths) {
  return std::vector<std::string>(keyPaths.begin(), keyPaths.end());
}

// The failure as the platform error a caller can read: a core error keeps its
// domain and code and says what failed (its text(), with the reason and the
// payload that its plain platform form leaves out).
Error describedFailure(const StreamError& failure) {
  if (!failure.isBrivetError()) return *failure.platformError();
  const Error plain = failure.toError();
  return Error::withDescription(plain.domain(), plain.code(), failure.text());
}

// Subscribes to a stream, keeps its last dictionary and hands over the outcome
// at its end.
TovCancel deliverStream(const TovStream<JSONEnvelope>& stream, TovDeliver deliver) {
  auto last = std::make_shared<Object>();
  std::shared_ptr<Subscription> subscription = stream.subscribeWithProgressAndFailure(
      [last](const Object& dictionary) { *last = dictionary; },  // on the main queue, one event at a time
      [last, deliver = std::move(deliver)](const StreamError* failure) {
        if (failure != nullptr) {
          deliver(Result<Object, Error>(Failure{describedFailure(*failure)}));
        } else {
          deliver(last->isNil() ? Object::dictionary() : *last);
        }
      });
  return [subscription] { subscription->cancel(); };
}

}  // namespace

TovCancel startGet(TovModel& model, const std::vector<KeyPath>& keyPaths, const TovGetOptions& options,
                   TovDeliver deliver) {
  std::shared_ptr<TovGetOperation> operation = model.getWithKeyPaths(strings(keyPaths));
  if (options.refresh) operation = operation->refresh();
  if (options.skipMerge) operation = operation->skipMerge();
  return deliverStream(operation->asStream(), std::move(deliver));
}

TovCancel startSet(TovModel& model, const Object& jsonGraph, TovDeliver deliver) {
  return deliverStream(model.setWithValue(jsonGraph)->asStream(), std::move(deliver));
}

TovCancel startCall(TovModel& model, const KeyPath& function, const TovCallOptions& options, TovDeliver deliver) {
  std::optional<std::vector<Object>> arguments;
  if (!options.arguments.empty()) arguments = options.arguments;
  std::optional<std::vector<std::string>> suffixes;
  if (!options.returnKeyPathSuffixes.empty()) suffixes = strings(options.returnKeyPathSuffixes);
  std::optional<std::vector<std::string>> fetch;
  if (!options.fetchKeyPaths.empty()) fetch = strings(options.fetchKeyPaths);
  return deliverStream(model.callFunctionWithKeyPath(function, arguments, suffixes, fetch)->asStream(),
                       std::move(deliver));
}

Result<Object, Error> graphSetting(const KeyPath& keyPath, const Object& value) {
  if (keyPath.hasRange()) {
    return accessError(AccessErrorCode::InvalidKeyPath,
                       "cannot set a value at \"" + std::string(keyPath.text()) +
                           "\": a key path with a range names many nodes; set a JSON Graph instead");
  }
  const std::vector<std::string_view> components = keyPath.components();
  Object nested = value.isNil() ? Object::null() : value;
  for (auto key = components.rbegin(); key != components.rend(); ++key) {
    nested = Object::dictionary({{Object::string(*key), nested}});
  }
  return nested;
}

Result<Object, Error> waitForTov(std::string_view operation, std::chrono::milliseconds timeout,
                                 const std::function<TovCancel(TovDeliver)>& start) {
  return internal::waitFor<Object>(operation, timeout, start);
}

}  // namespace detail

namespace blocking {

Result<Object, Error> get(TovModel& model, const std::vector<KeyPath>& keyPaths, const TovGetOptions& options) {
  return detail::waitForTov("blocking::get", options.timeout, [&](detail::TovDeliver deliver) {
    return detail::startGet(model, keyPaths, options, std::move(deliver));
  });
}

Result<Object, Error> set(TovModel& model, const Object& jsonGraph, const TovSetOptions& options) {
  return detail::waitForTov("blocking::set", options.timeout, [&](detail::TovDeliver deliver) {
    return detail::startSet(model, jsonGraph, std::move(deliver));
  });
}

Result<Object, Error> setValue(TovModel& model, const KeyPath& keyPath, const Object& value,
                               const TovSetOptions& options) {
  Result<Object, Error> graph = detail::graphSetting(keyPath, value);
  if (!graph.ok()) return graph;
  return set(model, graph.value(), options);
}

Result<Object, Error> call(TovModel& model, const KeyPath& function, const TovCallOptions& options) {
  return detail::waitForTov("blocking::call", options.timeout, [&](detail::TovDeliver deliver) {
    return detail::startCall(model, function, options, std::move(deliver));
  });
}

}  // namespace blocking
}  // namespace brivet
