// Preconditions: conditions whose failure is a programming error.
//
// A failed precondition prints the reason with its source location to standard
// error and stops the program. No input that comes from outside the process
// (a server answer, a snapshot file) may ever reach one: such input is checked
// first and turned into an error value.
#pragma once

namespace brivet {
// Prints the failed condition (or, when `condition` is null, the fatal error)
// with its source location to standard error and aborts. Called by the macros.
[[noreturn]] void preconditionFailure(const char* condition, const char* message, const char* file,
                                      int line);
}  // namespace brivet

// Stops the program with `message` (a C string) when `condition` is false.
#define BRIVET_PRECONDITION(condition, message)                               \
  do {                                                                        \
    if (!(condition)) [[unlikely]]                                            \
      ::brivet::preconditionFailure(#condition, (message), __FILE__, __LINE__); \
  } while (false)

// Stops the program unconditionally (an unreachable state, an unavailable initialiser).
#define BRIVET_FATAL(message) ::brivet::preconditionFailure(nullptr, (message), __FILE__, __LINE__)
