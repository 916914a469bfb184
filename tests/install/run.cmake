# Installs a Brivet build into a fresh prefix, then configures, builds and runs
# the consumer project of this folder against it, once per target; the first
# run also compiles every installed header on its own. Run by CTest
# (install.consumer):
#
#   cmake -DBUILD_DIR=<build> -DSOURCE_DIR=<this folder> -DWORK_DIR=<scratch> -DTARGETS=platform,core,...
#         -DCXX=<compiler> -DGENERATOR=Ninja [-DFLAGS=<compile and link flags>] -P run.cmake
foreach(variable BUILD_DIR SOURCE_DIR WORK_DIR TARGETS CXX GENERATOR)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "run.cmake needs -D${variable}=...")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${result}): ${command}\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")

string(REPLACE "," ";" targets "${TARGETS}")
set(check ON)
foreach(target IN LISTS targets)
  set(dir "${WORK_DIR}/${target}")
  run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${dir}" -G "${GENERATOR}" -DCMAKE_BUILD_TYPE=Release
      "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}"
      "-DCMAKE_PREFIX_PATH=${prefix}" "-DBRIVET_TARGET=${target}" "-DBRIVET_CHECK_HEADERS=${check}")
  run(${CMAKE_COMMAND} --build "${dir}")
  run("${dir}/consumer")
  message(STATUS "brivet::${target}: configured, built and ran against the installed package")
  set(check OFF)
endforeach()
