#include "brivet/facade/kel_calls.h"

#include <memory>
#include <utility>

#include "brivet/platform/internal/blocking.h"

namespace brivet {
namespace detail {
namespace {

std::vector<std::string> strings(const std::vector<KeyPath>& keyPaths) {
  return std::vector<std::string>(keyPaths.begin(), keyPaths.end());
}

// The completion as one answer: the error, or the result (an empty dictionary for none).
KelModel::Completion completionDelivering(KelDeliver deliver) {
  return [deliver = std::move(deliver)](Object result, std::optional<Error> error) {
    if (error) {
      deliver(Result<Object, Error>(Failure{std::move(*error)}));
    } else {
      deliver(result.isNil() ? Object::dictionary() : std::move(result));
    }
  };
}

KelCancel cancelling(KelModel::Subscription subscription) {
  if (subscription == nullptr) return nullptr;
  return [subscription] { subscription->cancel(); };
}

}  // namespace

KelCancel startKelGet(KelModel& model, const std::vector<KeyPath>& keyPaths, const KelGetOptions& options,
                      KelDeliver deliver) {
  if (options.option == KelModelOption::ReturnCacheDataAndFetch) {
    deliver(Result<Object, Error>(Failure{accessError(
        AccessErrorCode::UnsupportedOption,
        "ReturnCacheDataAndFetch answers twice (the cache, then the fetch); a blocking or coroutine get answers "
        "once: use the completion form, or ask for ReturnCacheDataDontFetch and then ForceRemote")}));
    return nullptr;
  }
  return cancelling(
      model.getKeyPaths(strings(keyPaths), options.option, options.taskName, completionDelivering(std::move(deliver))));
}

KelCancel startKelCall(KelModel& model, const KeyPath& function, const KelCallOptions& options, KelDeliver deliver) {
  std::optional<std::vector<Object>> arguments;
  if (!options.arguments.empty()) arguments = options.arguments;
  std::optional<std::vector<std::string>> suffixes;
  if (!options.returnKeyPathSuffixes.empty()) suffixes = strings(options.returnKeyPathSuffixes);
  std::optional<std::vector<std::string>> fetch;
  if (!options.fetchKeyPaths.empty()) fetch = strings(options.fetchKeyPaths);
  const KelFunctionCall call(function, std::move(arguments), std::move(suffixes), options.taskName);
  return cancelling(model.callFunction(call, fetch, completionDelivering(std::move(deliver))));
}

}  // namespace detail

namespace blocking {

Result<Object, Error> get(KelModel& model, const std::vector<KeyPath>& keyPaths, const KelGetOptions& options) {
  return internal::waitFor<Object>("blocking::get", options.timeout, [&](detail::KelDeliver deliver) {
    return detail::startKelGet(model, keyPaths, options, std::move(deliver));
  });
}

Result<Object, Error> call(KelModel& model, const KeyPath& function, const KelCallOptions& options) {
  return internal::waitFor<Object>("blocking::call", options.timeout, [&](detail::KelDeliver deliver) {
    return detail::startKelCall(model, function, options, std::move(deliver));
  });
}

}  // namespace blocking
}  // namespace brivet
