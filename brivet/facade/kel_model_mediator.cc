#include "brivet/facade/kel_model_mediator.h"

#include "brivet/facade/internal/kel_model_delegate_mediator.h"
#include "brivet/legacy/constants.h"

namespace brivet {
namespace {

using internal::wrapSubscription;

// Raw values 1 to 4 pass through; the default and anything out of range become the legacy default.
BrivetModelOption legacyOption(KelModelOption option) {
  const auto raw = static_cast<std::int64_t>(option);
  return raw >= 1 && raw <= 4 ? static_cast<BrivetModelOption>(raw) : BrivetModelOptionDefault;
}

std::shared_ptr<const BrivetFunctionCall> legacyFunction(const KelFunctionCall& function) {
  return std::make_shared<BrivetFunctionCall>(function.callKeyPath, function.callArguments,
                                              function.returnKeyPathSuffixes, function.taskName);
}

// What a failure reports when the legacy model answered "no result" without an error object.
Error missingErrorObject() {
  return Error::withDescription(KelBrivet::errorDomain(), BRIVET_ERROR_CODE,
                                "The operation could not be completed, and no error was reported.");
}

}  // namespace

std::shared_ptr<KelModelMediator> KelModelMediator::create(std::optional<std::vector<std::string>> prefixes,
                                                           std::optional<std::vector<std::string>> optimizedPaths) {
  auto mediator = std::make_shared<KelModelMediator>(Passkey{}, std::move(prefixes), std::move(optimizedPaths));
  // The constructor made the data source a KelModelDelegateMediator.
  static_cast<internal::KelModelDelegateMediator&>(*mediator->delegateMediator_).setModel(mediator);
  return mediator;
}

KelModelMediator::KelModelMediator(Passkey, std::optional<std::vector<std::string>> prefixes,
                                   std::optional<std::vector<std::string>> optimizedPaths)
    : prefixes_(std::move(prefixes)),
      optimizedPaths_(std::move(optimizedPaths)),
      legacyModel_(BrivetModel::create(prefixes_)) {
  const auto delegates = std::make_shared<internal::KelModelDelegateMediator>();
  legacyModel_->setLoggingDelegate(delegates);
  legacyModel_->setDataSource(delegates);
  legacyModel_->setPerformanceTraceDelegate(delegates);
  delegateMediator_ = delegates;
}

KelModelMediator::~KelModelMediator() = default;

// --- Requests ---

KelModel::Subscription KelModelMediator::getKeyPaths(const KeyPaths& keyPaths,
                                                     const std::optional<std::string>& taskName,
                                                     Completion completion) {
  return wrapSubscription(legacyModel_->getKeyPaths(keyPaths, taskName, std::move(completion)));
}

KelModel::Subscription KelModelMediator::getKeyPaths(const KeyPaths& keyPaths, KelModelOption option,
                                                     const std::optional<std::string>& taskName,
                                                     Completion completion) {
  return wrapSubscription(legacyModel_->getKeyPaths(keyPaths, legacyOption(option), taskName, std::move(completion)));
}

KelModel::Subscription KelModelMediator::getKeyPath(const std::string& keyPath,
                                                    const std::optional<std::string>& taskName, Completion completion) {
  return wrapSubscription(legacyModel_->getKeyPath(keyPath, taskName, std::move(completion)));
}

KelModel::Subscription KelModelMediator::getKeyPath(const std::string& keyPath, KelModelOption option,
                                                    const std::optional<std::string>& taskName, Completion completion) {
  return wrapSubscription(legacyModel_->getKeyPath(keyPath, legacyOption(option), taskName, std::move(completion)));
}

KelModel::Subscription KelModelMediator::callFunction(const KelFunctionCall& function,
                                                      const std::optional<KeyPaths>& fetchKeyPaths,
                                                      Completion completion) {
  return wrapSubscription(legacyModel_->callFunction(legacyFunction(function), fetchKeyPaths, std::move(completion)));
}

KelModel::Subscription KelModelMediator::callFunction(const KelFunctionCall& function, Completion completion) {
  return wrapSubscription(legacyModel_->callFunction(legacyFunction(function), std::move(completion)));
}

// --- Snapshots ---

Result<std::string> KelModelMediator::serializeCacheWithKeyPaths(const std::optional<KeyPaths>& keyPaths) {
  std::optional<Error> error;
  std::optional<std::string> data = legacyModel_->serializeCacheWithKeyPaths(keyPaths, &error);
  if (data) return std::move(*data);
  return error ? *std::move(error) : missingErrorObject();
}

Result<void> KelModelMediator::deserializeCache(std::string_view data) {
  std::optional<Error> error;
  if (legacyModel_->deserializeCache(data, &error)) return {};
  return error ? *std::move(error) : missingErrorObject();
}

// --- The cache ---

void KelModelMediator::mergeJSONDictionaryIntoModel(const Object& dictionary) {
  const Object copy = dictionary.mutableCopy();
  if (copy.isMutableDictionary()) legacyModel_->mergeJSONDictionaryIntoModel(copy);
}

Object KelModelMediator::valueForKeyPath(std::string_view keyPath) { return legacyModel_->valueForKeyPath(keyPath); }

Object KelModelMediator::valueForKey(std::string_view key) { return legacyModel_->valueForKey(key); }

std::vector<Object> KelModelMediator::valuesForKeyPaths(const KeyPaths& keyPaths) {
  return legacyModel_->valuesForKeyPaths(keyPaths);
}

std::vector<Object> KelModelMediator::valuesForKeyPaths(const KeyPaths& keyPaths,
                                                        const std::optional<KeyPaths>& /*optimizedKeyPaths*/,
                                                        bool fillEmptyWithNull) {
  return legacyModel_->valuesForKeyPaths(keyPaths, fillEmptyWithNull);
}

void KelModelMediator::setValueForKeyPath(const Object& value, std::string_view keyPath) {
  legacyModel_->setValueForKeyPath(value, keyPath);
}

void KelModelMediator::setValueForKey(const Object& value, std::string_view key) {
  legacyModel_->setValueForKey(value, key);
}

void KelModelMediator::invalidateWithKeyPaths(const KeyPaths& keyPaths) {
  legacyModel_->invalidateForKeyPaths(keyPaths);
}

// --- Properties ---

std::shared_ptr<KelDataSource> KelModelMediator::dataSource() const {
  MutexLock lock(mu_);
  return dataSource_.lock();
}

void KelModelMediator::setDataSource(const std::shared_ptr<KelDataSource>& dataSource) {
  MutexLock lock(mu_);
  dataSource_ = dataSource;
}

std::shared_ptr<KelLoggerDelegate> KelModelMediator::loggingDelegate() const {
  MutexLock lock(mu_);
  return loggingDelegate_.lock();
}

void KelModelMediator::setLoggingDelegate(const std::shared_ptr<KelLoggerDelegate>& delegate) {
  MutexLock lock(mu_);
  loggingDelegate_ = delegate;
}

std::shared_ptr<KelPerformanceTraceDelegate> KelModelMediator::performanceTraceDelegate() const {
  MutexLock lock(mu_);
  return performanceTraceDelegate_.lock();
}

void KelModelMediator::setPerformanceTraceDelegate(const std::shared_ptr<KelPerformanceTraceDelegate>& delegate) {
  MutexLock lock(mu_);
  performanceTraceDelegate_ = delegate;
}

KelModelType KelModelMediator::modelType() const {
  MutexLock lock(mu_);
  return modelType_;
}

void KelModelMediator::setModelType(KelModelType modelType) {
  MutexLock lock(mu_);
  modelType_ = modelType;
}

}  // namespace brivet
