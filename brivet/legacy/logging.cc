// BrivetModel: logging and performance tracing through the application's delegates, behind their gates.
#include "brivet/legacy/model.h"

namespace brivet {

std::shared_ptr<BrivetLoggerDelegate> BrivetModel::enabledLogger() {
  std::shared_ptr<BrivetLoggerDelegate> logger = loggingDelegate();
  if (logger == nullptr || !logger->enableLoggingInBrivet(*this)) return nullptr;
  return logger;
}

std::shared_ptr<BrivetLoggerDelegate> BrivetModel::enabledNetworkLogger() {
  std::shared_ptr<BrivetLoggerDelegate> logger = enabledLogger();
  if (logger == nullptr || !logger->enableExNetworkLoggingInBrivet(*this).value_or(false)) return nullptr;
  return logger;
}

void BrivetModel::logDebugUserInfo(const Object& userInfo) {
  if (auto logger = enabledLogger()) logger->logDebugUserInfo(*this, userInfo);
}

void BrivetModel::beginTraceForTaskName(const std::string& taskName, const UUID& uuid) {
  const auto tracer = performanceTraceDelegate();
  if (tracer != nullptr && tracer->enablePerformanceTracing(*this))
    tracer->beginTraceForTaskName(*this, taskName, uuid);
}

void BrivetModel::endTraceForUUID(const UUID& uuid, const std::string& taskName, const std::optional<Error>& error,
                                  bool cached, bool hasExpired) {
  const auto tracer = performanceTraceDelegate();
  if (tracer != nullptr && tracer->enablePerformanceTracing(*this)) {
    tracer->endTraceForUUID(*this, uuid, taskName, error, cached, hasExpired);
  }
}

}  // namespace brivet
