// Clang thread-safety annotations (no-ops on other compilers).
//
// Members guarded by a mutex say so with BRIVET_GUARDED_BY, and Clang builds
// check them with -Wthread-safety. Macros only: usable from any code.
#pragma once

#if defined(__clang__)
#define BRIVET_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define BRIVET_THREAD_ANNOTATION(x)
#endif

#define BRIVET_CAPABILITY(x) BRIVET_THREAD_ANNOTATION(capability(x))
#define BRIVET_SCOPED_CAPABILITY BRIVET_THREAD_ANNOTATION(scoped_lockable)
#define BRIVET_GUARDED_BY(x) BRIVET_THREAD_ANNOTATION(guarded_by(x))
#define BRIVET_PT_GUARDED_BY(x) BRIVET_THREAD_ANNOTATION(pt_guarded_by(x))
#define BRIVET_REQUIRES(...) BRIVET_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define BRIVET_EXCLUDES(...) BRIVET_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define BRIVET_ACQUIRE(...) BRIVET_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define BRIVET_RELEASE(...) BRIVET_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define BRIVET_NO_THREAD_SAFETY_ANALYSIS BRIVET_THREAD_ANNOTATION(no_thread_safety_analysis)
