// Files: whole-file reads with a size bound, and writes that never leave a
// torn file behind.
//
// `writeFileAtomically` writes the bytes to a new temporary file in the same
// directory, flushes it to the device (fsync), renames it over `path` and
// flushes the directory entry. A process killed at any moment, or a machine
// losing power after the call returned, leaves at `path` either the old file
// whole or the new file whole, never a mix. A process killed in the middle of
// the write can leave its temporary file (`<path>.<pid>-<n>.tmp`) beside the
// target; it never replaces anything and can be deleted at any time.
//
// `readFile` reads a regular file whole, refusing directories, other special
// files and files larger than `maxBytes` before reading them.
//
// Failures are `Error`s in `kFileErrorDomain` whose code is the POSIX errno
// (or EISDIR / EFBIG for the refusals) and whose description names the path
// and the cause. Both functions are safe to call from any thread; two writers
// of the same path in parallel each write a whole file, and the later rename
// wins.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "brivet/platform/error.h"
#include "brivet/platform/result.h"

namespace brivet {

inline constexpr std::string_view kFileErrorDomain = "BrivetFileErrorDomain";

// Snapshot files and similar are read whole; this is the default bound.
inline constexpr std::uint64_t kDefaultMaxFileBytes = std::uint64_t{1} << 30;

Result<void> writeFileAtomically(const std::string& path, std::string_view bytes);

Result<std::string> readFile(const std::string& path, std::uint64_t maxBytes = kDefaultMaxFileBytes);

}  // namespace brivet
