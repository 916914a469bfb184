#include "brivet/core/model/model.h"

#include <utility>

#include "brivet/core/model/internal/operation_support.h"
#include "brivet/core/model/operations.h"
#include "brivet/core/model/stream.h"
#include "brivet/platform/precondition.h"

namespace brivet {

InternalModel Model::internalModel() const {
  return InternalModel(cache(), dataSource(), maxRetries(), loggingDelegate(), operationQueue(), retryPolicy());
}

GetOperation Model::get(PathTree pathTree) const { return GetOperation(internalModel(), std::move(pathTree)); }

SetOperation Model::set(JSONGraph jsonGraph) const { return SetOperation(internalModel(), std::move(jsonGraph)); }

CallOperation Model::call(std::vector<std::string> function, std::optional<JSONGraph> args,
                          std::optional<PathTree> refSuffixes, std::optional<PathTree> thisPaths) const {
  return CallOperation(internalModel(), std::move(function), std::move(args), std::move(refSuffixes),
                       std::move(thisPaths));
}

std::shared_ptr<Model> Model::withRetries(std::int64_t maxRetries, RetryPolicy policy) const {
  return std::make_shared<InternalModel>(cache(), dataSource(), maxRetries, loggingDelegate(), operationQueue(),
                                         std::move(policy));
}

CacheEnvelope Model::getCache(const std::optional<PathTree>& pathTree) const {
  return internal::snapshotCache(*cache(), pathTree);
}

InternalModel::InternalModel(std::shared_ptr<CacheProtocol> cache, std::shared_ptr<DataSource> dataSource,
                             std::int64_t maxRetries, std::weak_ptr<LoggingDelegate> loggingDelegate,
                             std::shared_ptr<DispatchQueue> operationQueue, RetryPolicy retryPolicy)
    : cache_(std::move(cache)),
      dataSource_(std::move(dataSource)),
      maxRetries_(maxRetries),
      loggingDelegate_(std::move(loggingDelegate)),
      operationQueue_(operationQueue != nullptr ? std::move(operationQueue) : makeTaskQueue()),
      retryPolicy_(std::move(retryPolicy)) {
  BRIVET_PRECONDITION(cache_ != nullptr, "a model needs a cache");
}

void InternalModel::logError(const std::string& message) const {
  std::shared_ptr<LoggingDelegate> delegate = loggingDelegate();
  if (delegate != nullptr && delegate->enableLogging(*this)) delegate->logError(*this, message);
}

void InternalModel::logInfo(const std::string& message) const {
  std::shared_ptr<LoggingDelegate> delegate = loggingDelegate();
  if (delegate != nullptr && delegate->enableLogging(*this)) delegate->logInfo(*this, message);
}

std::shared_ptr<Model> Brivet::createModel(std::optional<JSONGraph> cache, std::shared_ptr<DataSource> dataSource,
                                           std::optional<std::vector<std::string>> prefixes,
                                           std::optional<std::vector<std::string>> optimizedPaths) {
  return std::make_shared<InternalModel>(
      Cache::create(std::move(cache), std::move(prefixes), std::move(optimizedPaths)), std::move(dataSource));
}

}  // namespace brivet
