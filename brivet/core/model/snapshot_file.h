// Saving the core model's cache to a file and restoring it from one.
//
// `saveCacheToFile` writes the snapshot text (`serializeCacheWithKeyPaths`)
// with `writeFileAtomically`: a process killed during the save leaves the
// previous file whole, so the next launch always restores one complete
// snapshot. `restoreCacheFromFile` reads the file (bounded by
// `kDefaultMaxFileBytes`) and hands it to `deserializeCache`; a file that is
// JSON but holds no snapshot restores nothing and says why in the report.
// Errors are the file's (`kFileErrorDomain`) or the JSON reader's. Callable
// from any thread except that the model's own rules for its methods apply.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "brivet/core/cache/cache_envelope.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/result.h"

namespace brivet {

// `keyPaths` selects what to save, as for `serializeCacheWithKeyPaths`; none saves the whole cache.
Result<void> saveCacheToFile(TovModelLegacy& model, const std::string& path,
                             const std::optional<std::vector<std::string>>& keyPaths = std::nullopt);

Result<SnapshotReport> restoreCacheFromFile(TovModelLegacy& model, const std::string& path);

}  // namespace brivet
