#include "brivet/facade/kel_types.h"

namespace brivet {

std::optional<KelModelType> kelModelTypeFromRawValue(std::int64_t rawValue) {
  if (rawValue < 0 || rawValue > 1) return std::nullopt;
  return static_cast<KelModelType>(rawValue);
}

std::optional<KelModelOption> kelModelOptionFromRawValue(std::int64_t rawValue) {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<KelModelOption>(rawValue);
}

}  // namespace brivet
