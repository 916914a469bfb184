// What the benchmarks read of the process's memory: the bytes resident now
// (Linux /proc/self/statm; 0 where it cannot be read). Any thread.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdio>

namespace brivet::testing {

inline std::size_t residentBytes() {
  long pages = 0;
  long resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  return resident > 0 && pageSize > 0 ? static_cast<std::size_t>(resident) * static_cast<std::size_t>(pageSize) : 0;
}

}  // namespace brivet::testing
