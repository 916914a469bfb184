// The facade's value types: model types and get options with checked construction from raw values, the remote
// function call record, and the subscription protocol with its ready-made implementation.
//
// `KelFunctionCall` is a plain value (copy it freely); it has no default constructor, a call needs a key path.
// `AnySubscriptionObject` is a library object (it can travel inside object trees) whose `cancel` runs an optional
// callback; the callback is shared, so two wrappers around one request cancel the same thing. Cancelling may be
// done from any thread; what the callback does is up to whoever supplied it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet {

// Stored by a model and read back; no operation consults it.
enum class KelModelType : std::int64_t { First = 0, Second = 1 };
// How a get chooses between the cache and the data source (the legacy model's options, same raw values).
enum class KelModelOption : std::int64_t {
  Default = 0,                   // answer from the cache, fetch only missing or expired paths
  NoCache = 1,                   // fetch every path, answer from the response, cache untouched
  ForceRemote = 2,               // fetch every path, merge, answer from the cache
  ReturnCacheDataAndFetch = 3,   // answer from the cache at once, then fetch, merge and answer again
  ReturnCacheDataDontFetch = 4,  // answer from the cache only
};

// Checked construction from raw values: nothing for a raw value without a case.
std::optional<KelModelType> kelModelTypeFromRawValue(std::int64_t rawValue);
std::optional<KelModelOption> kelModelOptionFromRawValue(std::int64_t rawValue);

class KelFunctionCall {
 public:
  KelFunctionCall() = delete;
  KelFunctionCall(std::string keyPath, std::optional<std::vector<Object>> arguments,
                  std::optional<std::vector<std::string>> suffixes, std::optional<std::string> name = std::nullopt)
      : callKeyPath(std::move(keyPath)),
        callArguments(std::move(arguments)),
        returnKeyPathSuffixes(std::move(suffixes)),
        taskName(std::move(name)) {}

  std::string callKeyPath;
  std::optional<std::vector<Object>> callArguments;
  std::optional<std::vector<std::string>> returnKeyPathSuffixes;
  std::optional<std::string> taskName;
};

// A request that can be cancelled.
class KelSubscription {
 public:
  virtual ~KelSubscription() = default;
  virtual void cancel() = 0;
};

class AnySubscriptionObject final : public CustomObject, public KelSubscription {
 public:
  using Callback = std::shared_ptr<const std::function<void()>>;

  AnySubscriptionObject() = default;
  explicit AnySubscriptionObject(std::function<void()> cancel)
      : cancel_(cancel ? std::make_shared<const std::function<void()>>(std::move(cancel)) : nullptr) {}
  explicit AnySubscriptionObject(Callback cancel) : cancel_(std::move(cancel)) {}

  // Runs the callback, when there is one, every time.
  void cancel() override {
    if (cancel_ != nullptr) (*cancel_)();
  }
  const Callback& cancelCallback() const { return cancel_; }
  std::string_view className() const override { return "AnySubscriptionObject"; }
  void* castTo(CustomTypeId type) override { return castAs<AnySubscriptionObject, KelSubscription>(this, type); }

 private:
  const Callback cancel_;
};

}  // namespace brivet
