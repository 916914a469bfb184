# googletest and googlemock built from source with this build's own flags, for toolchains the installed
# (libstdc++, 64-bit) libraries cannot link with: libc++, -m32. Provides the targets the packaged config does
# (GTest::gtest, GTest::gtest_main, GTest::gmock, GTest::gmock_main).
include_guard(GLOBAL)

set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory("${BRIVET_GTEST_SOURCE_DIR}" "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)

# Without RTTI googletest must be told so: its headers and its libraries must agree.
if(CMAKE_CXX_FLAGS MATCHES "(^| )-fno-rtti( |$)")
  foreach(target gtest gtest_main gmock gmock_main)
    target_compile_definitions(${target} PUBLIC GTEST_HAS_RTTI=0)
  endforeach()
endif()
foreach(target gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${target})
    add_library(GTest::${target} ALIAS ${target})
  endif()
endforeach()
