// KelModelDelegateMediator: stands as a legacy model's data source, logger and tracer, and forwards each call to
// the application's facade delegates with the facade model as the first argument (internal to the facade).
//
// It holds the facade model weakly (the model owns it). Every call first loads the model; when the model is gone
// it answers false, nil, an empty dictionary or nothing, and calls nothing. Optional application methods are
// called only when implemented. A fetch without an application data source completes at once with the
// "'data source' is not specified." error and answers a subscription that cancels nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/legacy/protocols.h"

namespace brivet::internal {

// The subscription the facade hands out for `subscription` (nil stays nil): a new AnySubscriptionObject with the
// same callback when `subscription` is one, otherwise with a callback that cancels `subscription` (kept alive).
std::shared_ptr<AnySubscriptionObject> wrapSubscription(const Object& subscription);

class KelModelDelegateMediator final : public BrivetDataSource,
                                       public BrivetLoggerDelegate,
                                       public BrivetPerformanceTraceDelegate {
 public:
  KelModelDelegateMediator() = default;
  // Points the mediator at the facade model that owns it; called once, before the mediator is shared.
  void setModel(std::weak_ptr<KelModel> model) { model_ = std::move(model); }

  // BrivetDataSource
  bool enableCacheExpiration(BrivetModel& model) override;
  Object getWithParams(BrivetModel& model, const Object& params, const UUID& performanceTraceUUID,
                       BrivetDataSourceCompletion completion) override;
  Object callWithParams(BrivetModel& model, const Object& params, const UUID& performanceTraceUUID,
                        BrivetDataSourceCompletion completion) override;
  std::optional<Object> preGetWithKeyPaths(BrivetModel& model, const std::vector<std::string>& keyPaths) override;
  std::optional<Object> preCallWithKeyPaths(BrivetModel& model,
                                            const std::optional<std::vector<std::string>>& keyPaths) override;

  // BrivetLoggerDelegate
  bool enableLoggingInBrivet(BrivetModel& model) override;
  void logError(BrivetModel& model, const std::string& message) override;
  std::optional<bool> enableExNetworkLoggingInBrivet(BrivetModel& model) override;
  void logInfo(BrivetModel& model, const std::string& message) override;
  void logDebug(BrivetModel& model, const std::string& message) override;
  void logDebugUserInfo(BrivetModel& model, const Object& userInfo) override;

  // BrivetPerformanceTraceDelegate
  bool enablePerformanceTracing(BrivetModel& model) override;
  void beginTraceForTaskName(BrivetModel& model, const std::string& taskName, const UUID& uuid) override;
  void endTraceForUUID(BrivetModel& model, const UUID& uuid, const std::string& taskName,
                       const std::optional<Error>& error, bool cached, bool hasExpired) override;

 private:
  enum class Request { Get, Call };
  Object fetch(Request request, const Object& params, const UUID& uuid, BrivetDataSourceCompletion completion);

  std::weak_ptr<KelModel> model_;
};

}  // namespace brivet::internal
