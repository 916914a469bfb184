#include "brivet/core/datasource/data_source.h"

#include <utility>
#include <vector>

#include "brivet/platform/identifier.h"

namespace brivet {

const std::string& httpErrorDomain() {
  static const auto* domain = new std::string(std::string(kReverseDomain) + ".HTTP");
  return *domain;
}

Error httpFailure(std::int64_t statusCode, Object errorBody, Object retryAfter) {
  std::vector<Object::Entry> info;
  info.emplace_back(Object(kHTTPStatusCodeKey), Object(statusCode));
  if (!errorBody.isNil()) info.emplace_back(Object(kHTTPErrorBodyKey), std::move(errorBody));
  if (!retryAfter.isNil()) info.emplace_back(Object(kHTTPRetryAfterKey), std::move(retryAfter));
  info.emplace_back(Object(kLocalizedDescriptionKey), Object("HTTP status " + std::to_string(statusCode)));
  return Error(httpErrorDomain(), statusCode, Object::dictionaryWithDistinctKeys(std::move(info), false));
}

}  // namespace brivet
