# Compiles one source file (syntax only) and checks the compiler's verdict:
# with EXPECT empty the file must compile; otherwise it must be refused with a
# diagnostic matching the regular expression EXPECT. Run by CTest:
#
#   cmake -DCXX=<compiler> -DSOURCE=<file> -DINCLUDE=<dir> -DDEFINE=<NAME=value> [-DEXPECT=<regex>] -P ExpectCompileFailure.cmake
foreach(variable CXX SOURCE INCLUDE DEFINE)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "ExpectCompileFailure.cmake needs -D${variable}=...")
  endif()
endforeach()
execute_process(COMMAND "${CXX}" -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror "-I${INCLUDE}"
                        "-D${DEFINE}" "${SOURCE}"
                RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
if("${EXPECT}" STREQUAL "")
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "expected ${DEFINE} to compile, it did not:\n${output}")
  endif()
  message(STATUS "${DEFINE}: compiles")
elseif(result EQUAL 0)
  message(FATAL_ERROR "expected ${DEFINE} to be refused (${EXPECT}), it compiled")
elseif(NOT output MATCHES "${EXPECT}")
  message(FATAL_ERROR "expected ${DEFINE} to be refused with a diagnostic matching '${EXPECT}':\n${output}")
else()
  message(STATUS "${DEFINE}: refused as expected (${EXPECT})")
endif()
