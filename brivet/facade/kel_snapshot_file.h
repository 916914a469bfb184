// Saving the app model's cache to a file and restoring it from one.
//
// `saveCacheToFile` writes the snapshot text (`serializeCacheWithKeyPaths`)
// with `writeFileAtomically`: a process killed during the save leaves the
// previous file whole, so the next launch always restores one complete
// snapshot. `restoreCacheFromFile` reads the file (bounded by
// `kDefaultMaxFileBytes`) and merges it with `deserializeCache`. Errors are
// the file's (`kFileErrorDomain`) or those `deserializeCache` gives.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "brivet/facade/kel_model.h"
#include "brivet/platform/result.h"

namespace brivet {

// `keyPaths` selects what to save, as for `serializeCacheWithKeyPaths`; none saves the whole cache.
Result<void> saveCacheToFile(KelModel& model, const std::string& path,
                             const std::optional<std::vector<std::string>>& keyPaths = std::nullopt);

Result<void> restoreCacheFromFile(KelModel& model, const std::string& path);

}  // namespace brivet
