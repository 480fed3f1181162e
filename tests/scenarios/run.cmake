# Runs one scenario script and compares its standard output with NAME.out beside it.
get_filename_component(dir ${SCRIPT} DIRECTORY)
get_filename_component(name ${SCRIPT} NAME_WE)
execute_process(COMMAND ${SRTE} ${SCRIPT} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc
                WORKING_DIRECTORY ${dir})
set(actual "${out}")
if(NOT rc EQUAL 0)
  string(APPEND actual "exit status ${rc}\n")
endif()
file(READ ${dir}/${name}.out expected)
if(NOT actual STREQUAL expected)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${name}.actual "${actual}")
  message(FATAL_ERROR "scenario ${name}: output differs from ${name}.out; got (saved as ${name}.actual):\n${actual}\nstderr:\n${err}")
endif()
