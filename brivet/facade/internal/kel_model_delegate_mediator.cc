#include "brivet/facade/internal/kel_model_delegate_mediator.h"

#include "brivet/legacy/constants.h"

namespace brivet::internal {
namespace {

void cancelObject(const Object& subscription) {
  if (const auto kel = subscription.asCustom<KelSubscription>()) {
    kel->cancel();
  } else if (const auto legacy = subscription.asCustom<BrivetOperation>()) {
    legacy->cancel();
  }
}

Object asObject(const std::shared_ptr<AnySubscriptionObject>& subscription) {
  return subscription != nullptr ? Object(std::static_pointer_cast<CustomObject>(subscription)) : Object();
}

}  // namespace

std::shared_ptr<AnySubscriptionObject> wrapSubscription(const Object& subscription) {
  if (subscription.isNil()) return nullptr;
  if (const auto any = subscription.asCustom<AnySubscriptionObject>(); any != nullptr && any->cancelCallback()) {
    return std::make_shared<AnySubscriptionObject>(any->cancelCallback());
  }
  return std::make_shared<AnySubscriptionObject>([subscription] { cancelObject(subscription); });
}

// --- BrivetDataSource ---

bool KelModelDelegateMediator::enableCacheExpiration(BrivetModel& /*model*/) {
  const auto model = model_.lock();
  if (model == nullptr) return false;
  const auto source = model->dataSource();
  return source != nullptr && source->enableCacheExpirationInBrivet(*model);
}

Object KelModelDelegateMediator::getWithParams(BrivetModel& /*model*/, const Object& params, const UUID& uuid,
                                               BrivetDataSourceCompletion completion) {
  return fetch(Request::Get, params, uuid, std::move(completion));
}

Object KelModelDelegateMediator::callWithParams(BrivetModel& /*model*/, const Object& params, const UUID& uuid,
                                                BrivetDataSourceCompletion completion) {
  return fetch(Request::Call, params, uuid, std::move(completion));
}

Object KelModelDelegateMediator::fetch(Request request, const Object& params, const UUID& uuid,
                                       BrivetDataSourceCompletion completion) {
  const auto model = model_.lock();
  if (model == nullptr) return Object();
  const auto source = model->dataSource();
  if (source == nullptr) {
    if (completion) {
      completion(Object(), Object(),
                 Error::withDescription(KelBrivet::errorDomain(), BRIVET_ERROR_CODE,
                                        request == Request::Get
                                            ? "KelModel.brivet(getWithParams:) ERROR: 'data source' is not specified."
                                            : "KelModel.brivet(callWithParams:) ERROR: 'data source' is not "
                                              "specified."));
    }
    return asObject(std::make_shared<AnySubscriptionObject>());
  }
  // The application's answer goes back to the legacy model unchanged.
  KelDataSourceCompletion forward = [completion = std::move(completion)](Object results, Object extra,
                                                                         std::optional<Error> error) {
    if (completion) completion(std::move(results), std::move(extra), std::move(error));
  };
  const Object subscription = request == Request::Get
                                  ? source->getWithParams(*model, params, uuid, std::move(forward))
                                  : source->callWithParams(*model, params, uuid, std::move(forward));
  return asObject(wrapSubscription(subscription));
}

std::optional<Object> KelModelDelegateMediator::preGetWithKeyPaths(BrivetModel& /*model*/,
                                                                   const std::vector<std::string>& keyPaths) {
  const auto model = model_.lock();
  const auto source = model != nullptr ? model->dataSource() : nullptr;
  std::optional<Object> extra = source != nullptr ? source->preGetWithKeyPaths(*model, keyPaths) : std::nullopt;
  return extra ? *std::move(extra) : Object::dictionary();
}

std::optional<Object> KelModelDelegateMediator::preCallWithKeyPaths(
    BrivetModel& /*model*/, const std::optional<std::vector<std::string>>& keyPaths) {
  const auto model = model_.lock();
  const auto source = model != nullptr ? model->dataSource() : nullptr;
  std::optional<Object> extra = source != nullptr ? source->preCallWithKeyPaths(*model, keyPaths) : std::nullopt;
  return extra ? *std::move(extra) : Object::dictionary();
}

// --- BrivetLoggerDelegate ---

bool KelModelDelegateMediator::enableLoggingInBrivet(BrivetModel& /*model*/) {
  const auto model = model_.lock();
  const auto logger = model != nullptr ? model->loggingDelegate() : nullptr;
  return logger != nullptr && logger->enableLoggingInBrivet(*model);
}

void KelModelDelegateMediator::logError(BrivetModel& /*model*/, const std::string& message) {
  const auto model = model_.lock();
  if (const auto logger = model != nullptr ? model->loggingDelegate() : nullptr) logger->logError(*model, message);
}

std::optional<bool> KelModelDelegateMediator::enableExNetworkLoggingInBrivet(BrivetModel& /*model*/) {
  const auto model = model_.lock();
  const auto logger = model != nullptr ? model->loggingDelegate() : nullptr;
  return logger != nullptr && logger->enableExNetworkLoggingInBrivet(*model).value_or(false);
}

void KelModelDelegateMediator::logInfo(BrivetModel& /*model*/, const std::string& message) {
  const auto model = model_.lock();
  if (const auto logger = model != nullptr ? model->loggingDelegate() : nullptr) logger->logInfo(*model, message);
}

void KelModelDelegateMediator::logDebug(BrivetModel& /*model*/, const std::string& message) {
  const auto model = model_.lock();
  if (const auto logger = model != nullptr ? model->loggingDelegate() : nullptr) logger->logDebug(*model, message);
}

void KelModelDelegateMediator::logDebugUserInfo(BrivetModel& /*model*/, const Object& userInfo) {
  const auto model = model_.lock();
  if (const auto logger = model != nullptr ? model->loggingDelegate() : nullptr) {
    logger->logDebugUserInfo(*model, userInfo);
  }
}

// --- BrivetPerformanceTraceDelegate ---

bool KelModelDelegateMediator::enablePerformanceTracing(BrivetModel& /*model*/) {
  const auto model = model_.lock();
  const auto tracer = model != nullptr ? model->performanceTraceDelegate() : nullptr;
  return tracer != nullptr && tracer->enablePerformanceTracingInBrivet(*model);
}

void KelModelDelegateMediator::beginTraceForTaskName(BrivetModel& /*model*/, const std::string& taskName,
                                                     const UUID& uuid) {
  const auto model = model_.lock();
  if (const auto tracer = model != nullptr ? model->performanceTraceDelegate() : nullptr) {
    tracer->beginTrace(*model, taskName, uuid);
  }
}

void KelModelDelegateMediator::endTraceForUUID(BrivetModel& /*model*/, const UUID& uuid, const std::string& taskName,
                                               const std::optional<Error>& error, bool cached, bool hasExpired) {
  const auto model = model_.lock();
  if (const auto tracer = model != nullptr ? model->performanceTraceDelegate() : nullptr) {
    tracer->endTrace(*model, uuid, taskName, error, cached, hasExpired);
  }
}

}  // namespace brivet::internal
