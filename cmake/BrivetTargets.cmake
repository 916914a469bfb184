# Helpers that give every Brivet target the same flags and wiring.
#
#   brivet_add_library(<name> SOURCES ... [DEPS ...] [PUBLIC_DEPS ...])
#       -> target brivet_<name>, alias brivet::<name>; built without exceptions.
#   brivet_add_test(<name> SOURCES ... [DEPS ...])
#       -> gtest executable brivet_<name>, each test registered with CTest.
#   brivet_add_benchmark(SOURCES ... [DEPS ...])
#       -> sources collected into the single brivet_benchmarks binary.
include_guard(GLOBAL)

set(BRIVET_SOURCE_ROOT "${CMAKE_CURRENT_LIST_DIR}/..")

# Every target gets -Wall -Wextra -Wpedantic. The libraries and the tools (STRICT) also get the conversion and
# shadowing warnings an app's own build may turn on; with Clang, -Wconversion includes -Wshorten-64-to-32, so a
# 64-bit value is never narrowed without a cast that says so. BRIVET_WERROR (off unless asked for; CI's builds
# turn it on) makes them errors.
function(brivet_apply_warnings target)
  cmake_parse_arguments(ARG "STRICT" "" "" ${ARGN})
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(ARG_STRICT)
    target_compile_options(${target} PRIVATE -Wshadow -Wconversion -Wsign-conversion)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  else()
    # GCC 12 reports std::string concatenation at -O3 as overlapping memcpy
    # (a known false positive of its -Wrestrict).
    target_compile_options(${target} PRIVATE -Wno-restrict)
    # On 32-bit targets GCC 12 reports moving an Error into a std::variant as reading an uninitialized
    # shared_ptr (a known false positive of its -Wmaybe-uninitialized after inlining libstdc++'s variant).
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
      target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
  endif()
  if(BRIVET_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizer findings stop the run. RapidJSON's headers are left out of
# UndefinedBehaviorSanitizer (see cmake/sanitizer_ignorelist.txt).
set(BRIVET_SANITIZER_ENVIRONMENT
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
    "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_init_order=1"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

function(brivet_apply_sanitizers target)
  if(BRIVET_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${BRIVET_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND BRIVET_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PRIVATE
        -fsanitize-ignorelist=${BRIVET_SOURCE_ROOT}/cmake/sanitizer_ignorelist.txt)
    endif()
    target_link_options(${target} PRIVATE -fsanitize=${BRIVET_SANITIZE})
  endif()
  if(BRIVET_BUILD_FUZZERS)
    # Coverage feedback for libFuzzer from every target, not only the harness.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

function(brivet_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PUBLIC_DEPS" ${ARGN})
  add_library(brivet_${name} ${ARG_SOURCES})
  add_library(brivet::${name} ALIAS brivet_${name})
  set_target_properties(brivet_${name} PROPERTIES EXPORT_NAME ${name} POSITION_INDEPENDENT_CODE ON)
  target_include_directories(brivet_${name} PUBLIC
    $<BUILD_INTERFACE:${BRIVET_SOURCE_ROOT}>
    $<INSTALL_INTERFACE:include>)
  target_compile_features(brivet_${name} PUBLIC cxx_std_20)
  # The library never lets an exception escape: it is built without them.
  target_compile_options(brivet_${name} PRIVATE -fno-exceptions)
  target_link_libraries(brivet_${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_DEPS})
  brivet_apply_warnings(brivet_${name} STRICT)
  brivet_apply_sanitizers(brivet_${name})
  set_property(GLOBAL APPEND PROPERTY BRIVET_EXPORTED_TARGETS brivet_${name})
endfunction()

function(brivet_add_test name)
  if(NOT BRIVET_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(brivet_${name} ${ARG_SOURCES})
  target_link_libraries(brivet_${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main Threads::Threads)
  brivet_apply_warnings(brivet_${name})
  brivet_apply_sanitizers(brivet_${name})
  gtest_discover_tests(brivet_${name} DISCOVERY_MODE PRE_TEST TEST_LIST brivet_${name}_TESTS)
  # gtest_discover_tests flattens list-valued PROPERTIES (every label after the first, every sanitizer option
  # after the first would be lost), so the properties are set on the discovered tests by a script of our own,
  # which CTest runs after the discovery script.
  set(environment "")
  if(BRIVET_SANITIZE)
    set(environment "${BRIVET_SANITIZER_ENVIRONMENT}")
  endif()
  set(properties_script "${CMAKE_CURRENT_BINARY_DIR}/brivet_${name}_properties.cmake")
  file(WRITE "${properties_script}"
       "foreach(test IN LISTS brivet_${name}_TESTS)\n"
       "  set_tests_properties(\"\${test}\" PROPERTIES LABELS [==[${name};${ARG_LABELS}]==] TIMEOUT 300\n"
       "                       ENVIRONMENT [==[${environment}]==])\n"
       "endforeach()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${properties_script}")
endfunction()

# libFuzzer targets, built only with -DBRIVET_BUILD_FUZZERS=ON (Clang; the fuzz build also sets
# BRIVET_SANITIZE=address,undefined so every library is instrumented).
#
#   brivet_add_fuzzer(<name> SOURCES <x_fuzzer.cc> ... [DEPS ...])
#       -> executable brivet_<name>_fuzzer; its seed corpus is the folder corpus/<name>/ beside the
#          CMakeLists.txt that declares it. Each fuzzer is listed in <build>/fuzzers.txt
#          ("<name> <binary> <seed corpus>") for scripts/fuzz.sh, and CTest replays its seed corpus
#          (test fuzz_replay_<name>, label fuzz).
function(brivet_add_fuzzer name)
  if(NOT BRIVET_BUILD_FUZZERS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  set(target brivet_${name}_fuzzer)
  set(corpus "${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name}")
  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE ${ARG_DEPS})
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
  target_link_options(${target} PRIVATE -fsanitize=fuzzer)
  brivet_apply_warnings(${target})
  brivet_apply_sanitizers(${target})
  set_property(GLOBAL APPEND PROPERTY BRIVET_FUZZERS "${name} $<TARGET_FILE:${target}> ${corpus}")
  if(BRIVET_BUILD_TESTS OR BRIVET_BUILD_FUZZERS)
    add_test(NAME fuzz_replay_${name} COMMAND ${target} -runs=0 ${corpus})
    set_tests_properties(fuzz_replay_${name} PROPERTIES LABELS fuzz TIMEOUT 600
                         ENVIRONMENT "${BRIVET_SANITIZER_ENVIRONMENT}")
  endif()
endfunction()

function(brivet_finish_fuzzers)
  if(NOT BRIVET_BUILD_FUZZERS)
    return()
  endif()
  get_property(lines GLOBAL PROPERTY BRIVET_FUZZERS)
  list(JOIN lines "\n" text)
  file(GENERATE OUTPUT "${CMAKE_BINARY_DIR}/fuzzers.txt" CONTENT "${text}\n")
endfunction()

function(brivet_add_benchmark)
  if(NOT BRIVET_BUILD_BENCHMARKS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  foreach(src IN LISTS ARG_SOURCES)
    get_filename_component(abs "${src}" ABSOLUTE)
    set_property(GLOBAL APPEND PROPERTY BRIVET_BENCHMARK_SOURCES "${abs}")
  endforeach()
  set_property(GLOBAL APPEND PROPERTY BRIVET_BENCHMARK_DEPS ${ARG_DEPS})
endfunction()

function(brivet_finish_benchmarks)
  if(NOT BRIVET_BUILD_BENCHMARKS)
    return()
  endif()
  get_property(sources GLOBAL PROPERTY BRIVET_BENCHMARK_SOURCES)
  get_property(deps GLOBAL PROPERTY BRIVET_BENCHMARK_DEPS)
  if(NOT sources)
    return()
  endif()
  list(REMOVE_DUPLICATES deps)
  add_executable(brivet_benchmarks ${sources})
  target_link_libraries(brivet_benchmarks PRIVATE ${deps} benchmark::benchmark_main Threads::Threads)
  brivet_apply_warnings(brivet_benchmarks)
endfunction()

# The public headers: every header under brivet/ except those in internal/
# and testing/ folders (library internals and test support). They are what
# `cmake --install` installs, and what tests/install compiles one by one.
function(brivet_public_headers out)
  file(GLOB_RECURSE headers RELATIVE "${BRIVET_SOURCE_ROOT}" CONFIGURE_DEPENDS "${BRIVET_SOURCE_ROOT}/brivet/*.h")
  list(FILTER headers EXCLUDE REGEX "(^|/)(internal|testing)/")
  list(SORT headers)
  set(${out} ${headers} PARENT_SCOPE)
endfunction()

# Installs the libraries, the public headers and a package config that finds
# the libraries' own dependencies, so that `find_package(Brivet)` is all a
# consumer writes.
function(brivet_install_exports)
  get_property(targets GLOBAL PROPERTY BRIVET_EXPORTED_TARGETS)
  if(NOT targets)
    return()
  endif()
  include(GNUInstallDirs)
  include(CMakePackageConfigHelpers)
  install(TARGETS ${targets} EXPORT BrivetTargets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  brivet_public_headers(headers)
  foreach(header IN LISTS headers)
    get_filename_component(folder "${header}" DIRECTORY)
    install(FILES "${BRIVET_SOURCE_ROOT}/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}")
  endforeach()
  install(EXPORT BrivetTargets NAMESPACE brivet:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Brivet)
  set(dependencies "find_dependency(Threads)\n")
  if(TARGET brivet_adapters)
    string(APPEND dependencies "find_dependency(CURL)\n")
  endif()
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/BrivetConfig.cmake
       "# Brivet's package: the targets brivet::platform, brivet::core, brivet::legacy,\n"
       "# brivet::facade and (when built) brivet::adapters, with their dependencies.\n"
       "include(CMakeFindDependencyMacro)\n"
       "${dependencies}"
       "include(\"\${CMAKE_CURRENT_LIST_DIR}/BrivetTargets.cmake\")\n")
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/BrivetConfigVersion.cmake
                                   COMPATIBILITY SameMinorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BrivetConfig.cmake
                ${CMAKE_CURRENT_BINARY_DIR}/BrivetConfigVersion.cmake
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Brivet)
endfunction()

# The install as an application meets it: CTest installs this build into a
# scratch prefix and builds tests/install against it, once per exported target
# (test install.consumer, label install).
function(brivet_add_install_test)
  if(NOT BRIVET_BUILD_TESTS)
    return()
  endif()
  get_property(targets GLOBAL PROPERTY BRIVET_EXPORTED_TARGETS)
  set(names "")
  foreach(target IN LISTS targets)
    string(REGEX REPLACE "^brivet_" "" name "${target}")
    list(APPEND names "${name}")
  endforeach()
  list(JOIN names "," names)
  # The consumer is built the way this build was (standard library, word size, sanitizers), so that every
  # installed header is also checked alone with that toolchain.
  set(flags "${CMAKE_CXX_FLAGS}")
  if(BRIVET_SANITIZE)
    string(APPEND flags " -fsanitize=${BRIVET_SANITIZE}")
  endif()
  string(STRIP "${flags}" flags)
  add_test(NAME install.consumer
           COMMAND ${CMAKE_COMMAND} "-DBUILD_DIR=${CMAKE_BINARY_DIR}" "-DSOURCE_DIR=${BRIVET_SOURCE_ROOT}/tests/install"
                   "-DWORK_DIR=${CMAKE_BINARY_DIR}/install-test" "-DTARGETS=${names}"
                   "-DCXX=${CMAKE_CXX_COMPILER}" "-DGENERATOR=${CMAKE_GENERATOR}" "-DFLAGS=${flags}"
                   -P "${BRIVET_SOURCE_ROOT}/tests/install/run.cmake")
  set(environment "")
  if(BRIVET_SANITIZE)
    set(environment "${BRIVET_SANITIZER_ENVIRONMENT}")
  endif()
  set_tests_properties(install.consumer PROPERTIES LABELS install TIMEOUT 1200 ENVIRONMENT "${environment}")
endfunction()
