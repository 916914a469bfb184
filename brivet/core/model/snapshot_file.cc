#include "brivet/core/model/snapshot_file.h"

#include "brivet/platform/file.h"

namespace brivet {

Result<void> saveCacheToFile(TovModelLegacy& model, const std::string& path,
                             const std::optional<std::vector<std::string>>& keyPaths) {
  Result<std::string> text = model.serializeCacheWithKeyPaths(keyPaths);
  if (!text.ok()) return std::move(text).error();
  return writeFileAtomically(path, text.value());
}

Result<SnapshotReport> restoreCacheFromFile(TovModelLegacy& model, const std::string& path) {
  Result<std::string> text = readFile(path);
  if (!text.ok()) return std::move(text).error();
  return model.deserializeCache(text.value());
}

}  // namespace brivet
