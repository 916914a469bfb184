#include "brivet/facade/kel_model.h"
#include "brivet/facade/kel_model_mediator.h"
#include "brivet/legacy/constants.h"

namespace brivet {

const std::string& KelBrivet::errorDomain() {
  static const auto* domain = new std::string(BRIVET_ERROR_DOMAIN);
  return *domain;
}

std::shared_ptr<KelModel> KelBrivet::createModel(std::optional<std::vector<std::string>> prefixes,
                                                 std::optional<std::vector<std::string>> optimizedPaths) {
  return KelModelMediator::create(std::move(prefixes), std::move(optimizedPaths));
}

bool KelBrivet::conformsToSubscription(const Object& object) {
  return object.asCustom<KelSubscription>() != nullptr || object.asCustom<BrivetOperation>() != nullptr;
}

}  // namespace brivet
