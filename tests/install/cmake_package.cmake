# The installed package as another project meets it: the build tree installed
# into a fresh prefix, the installed program run on the bundled example, and a
# project of its own (consumer/) configured with find_package(quolvent), built,
# and run on the same example in its own process. Its matrix file must be the
# program's to the byte.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DCXX=... -DGENERATOR=...
#         -DMAKE_PROGRAM=... -P cmake_package.cmake
function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}")
  endif()
  message(STATUS "${what}: done")
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR}/program ${WORK_DIR}/library)
set(prefix ${WORK_DIR}/prefix)
step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(examples ${SOURCE_DIR}/examples)
file(WRITE ${WORK_DIR}/run.inp
     "${examples}/mesh.txt\n${examples}/obs.mag\n${examples}/topo.txt\nVALUE 1.0\ndaub2\nnull\n0\n")
execute_process(COMMAND ${prefix}/bin/quolvent ${WORK_DIR}/run.inp 2 WORKING_DIRECTORY ${WORK_DIR}/program
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the installed program failed (${rc})")
endif()

step("configure the consumer" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/consumer
     -G ${GENERATOR} -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_CXX_COMPILER=${CXX}
     -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=${prefix})
step("build the consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
step("run the consumer" ${WORK_DIR}/consumer/consumer ${WORK_DIR}/run.inp ${WORK_DIR}/library)
message(STATUS "${step_output}")
step("compare the matrix files" ${CMAKE_COMMAND} -E compare_files
     ${WORK_DIR}/program/dulmarok.mtx ${WORK_DIR}/library/dulmarok.mtx)
file(REMOVE_RECURSE ${WORK_DIR})
