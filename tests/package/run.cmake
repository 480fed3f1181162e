# Installs this build into a scratch prefix, then builds and runs the consumer against it: the
# installed headers, the CMake package and the library work for a program outside the tree.
#   -DBUILD=<this build> -DSOURCE=<tests/package> -DDIR=<a scratch directory>
file(REMOVE_RECURSE ${DIR})
function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
endfunction()
step(install ${CMAKE_COMMAND} --install ${BUILD} --prefix ${DIR}/stage)
step(configure ${CMAKE_COMMAND} -S ${SOURCE} -B ${DIR}/consumer -G Ninja
     -DCMAKE_PREFIX_PATH=${DIR}/stage)
step(build ${CMAKE_COMMAND} --build ${DIR}/consumer)
step(run ${DIR}/consumer/consumer)
