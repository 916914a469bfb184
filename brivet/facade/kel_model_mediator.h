// KelModelMediator: the KelModel that KelBrivet creates, forwarding every operation to a legacy BrivetModel.
//
// Ownership: the mediator owns its legacy model and its delegate mediator (the object that answers the legacy
// model's data-source, logging and trace protocols by forwarding to this model's application delegates). Both
// point back only weakly, so releasing the last reference to the mediator releases all three. Application
// delegates are held weakly.
//
// The mediator converts types, maps get options (raw 1 to 4 pass through, anything else becomes the default),
// copies function calls, and wraps every subscription in a new AnySubscriptionObject. It has no queue of its
// own: the legacy model's queue guards the cache, a mutex guards the delegate properties. Any thread may call it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/legacy/model.h"
#include "brivet/platform/mutex.h"

namespace brivet {

class KelModelMediator final : public KelModel, public std::enable_shared_from_this<KelModelMediator> {
  struct Passkey {};

 public:
  static std::shared_ptr<KelModelMediator> create(std::optional<std::vector<std::string>> prefixes,
                                                  std::optional<std::vector<std::string>> optimizedPaths);
  KelModelMediator(Passkey, std::optional<std::vector<std::string>> prefixes,
                   std::optional<std::vector<std::string>> optimizedPaths);
  ~KelModelMediator() override;

  const std::optional<std::vector<std::string>>& prefixes() const { return prefixes_; }
  const std::optional<std::vector<std::string>>& optimizedPaths() const { return optimizedPaths_; }
  const std::shared_ptr<BrivetModel>& legacyModel() const { return legacyModel_; }

  Subscription getKeyPaths(const KeyPaths& keyPaths, const std::optional<std::string>& taskName,
                           Completion completion) override;
  Subscription getKeyPaths(const KeyPaths& keyPaths, KelModelOption option, const std::optional<std::string>& taskName,
                           Completion completion) override;
  Subscription getKeyPath(const std::string& keyPath, const std::optional<std::string>& taskName,
                          Completion completion) override;
  Subscription getKeyPath(const std::string& keyPath, KelModelOption option, const std::optional<std::string>& taskName,
                          Completion completion) override;
  Subscription callFunction(const KelFunctionCall& function, const std::optional<KeyPaths>& fetchKeyPaths,
                            Completion completion) override;
  Subscription callFunction(const KelFunctionCall& function, Completion completion) override;

  Result<std::string> serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) override;
  Result<void> deserializeCache(std::string_view data) override;

  void mergeJSONDictionaryIntoModel(const Object& dictionary) override;
  Object valueForKeyPath(std::string_view keyPath) override;
  Object valueForKey(std::string_view key) override;
  std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths) override;
  std::vector<Object> valuesForKeyPaths(const KeyPaths& keyPaths, const std::optional<KeyPaths>& optimizedKeyPaths,
                                        bool fillEmptyWithNull) override;
  void setValueForKeyPath(const Object& value, std::string_view keyPath) override;
  void setValueForKey(const Object& value, std::string_view key) override;
  void invalidateWithKeyPaths(const KeyPaths& keyPaths) override;

  std::shared_ptr<KelDataSource> dataSource() const override;
  void setDataSource(const std::shared_ptr<KelDataSource>& dataSource) override;
  std::shared_ptr<KelLoggerDelegate> loggingDelegate() const override;
  void setLoggingDelegate(const std::shared_ptr<KelLoggerDelegate>& delegate) override;
  std::shared_ptr<KelPerformanceTraceDelegate> performanceTraceDelegate() const override;
  void setPerformanceTraceDelegate(const std::shared_ptr<KelPerformanceTraceDelegate>& delegate) override;
  KelModelType modelType() const override;
  void setModelType(KelModelType modelType) override;

 private:
  const std::optional<std::vector<std::string>> prefixes_;
  const std::optional<std::vector<std::string>> optimizedPaths_;
  const std::shared_ptr<BrivetModel> legacyModel_;
  // The delegate mediator, set once by the constructor; it answers the legacy
  // model's logging and trace protocols as well.
  std::shared_ptr<BrivetDataSource> delegateMediator_;

  mutable Mutex mu_;
  std::weak_ptr<KelDataSource> dataSource_ BRIVET_GUARDED_BY(mu_);
  std::weak_ptr<KelLoggerDelegate> loggingDelegate_ BRIVET_GUARDED_BY(mu_);
  std::weak_ptr<KelPerformanceTraceDelegate> performanceTraceDelegate_ BRIVET_GUARDED_BY(mu_);
  KelModelType modelType_ BRIVET_GUARDED_BY(mu_) = KelModelType::First;
};

}  // namespace brivet
