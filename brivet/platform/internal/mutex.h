// The library's code names the annotated mutex types as internal::Mutex,
// internal::MutexLock and internal::CondVar: the same types as brivet/platform/mutex.h.
#pragma once

#include "brivet/platform/mutex.h"

namespace brivet::internal {
using ::brivet::CondVar;
using ::brivet::Mutex;
using ::brivet::MutexLock;
}  // namespace brivet::internal
