#include "brivet/platform/precondition.h"

#include <cstdio>
#include <cstdlib>

namespace brivet {

void preconditionFailure(const char* condition, const char* message, const char* file, int line) {
  if (condition != nullptr) {
    std::fprintf(stderr, "Brivet: precondition failed: %s (%s) at %s:%d\n", message, condition, file, line);
  } else {
    std::fprintf(stderr, "Brivet: fatal error: %s at %s:%d\n", message, file, line);
  }
  std::fflush(stderr);
  std::abort();
}

}  // namespace brivet
