# How srte takes its input: every case runs srte and checks its exit status and messages.
#   -DSRTE=<program> -DDIR=<a scratch directory>
file(MAKE_DIRECTORY ${DIR})
set(failures "")
function(expect name status out_regex err_regex)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc STREQUAL status OR NOT out MATCHES "${out_regex}" OR NOT err MATCHES "${err_regex}")
    set(failures "${failures}\n${name}: exit ${rc}, stdout [${out}], stderr [${err}]" PARENT_SCOPE)
  endif()
endfunction()

file(WRITE ${DIR}/ok.srte "label-range srlb base 15000 size 10\nshow mpls json\n")
file(WRITE ${DIR}/continued.srte "input-table bgp\ninput bgp 10.0.0.1 color 1 \\\n  discriminator 1 \\\n  segment-list weight 0 labels 16\nshow input\n")
file(WRITE ${DIR}/dangling.srte "label-range srlb base 15000 size 10\nshow mpls \\\n")

# A directory is not an empty script, whether named or given as standard input.
expect(directory 2 "^$" "^srte: cannot read '${DIR}': Is a directory\n$" ${SRTE} ${DIR})
execute_process(COMMAND ${SRTE} INPUT_FILE ${DIR} OUTPUT_VARIABLE out ERROR_VARIABLE err
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 2 OR NOT err STREQUAL "srte: cannot read standard input: Is a directory\n")
  set(failures "${failures}\nstdin directory: exit ${rc}, stderr [${err}]")
endif()
expect(missing 2 "^$" "^srte: cannot open '${DIR}/none.srte': No such file or directory\n$"
       ${SRTE} ${DIR}/none.srte)
expect(option 2 "^$" "unknown option '--nope'" ${SRTE} --nope)
expect(arguments 2 "^$" "too many arguments" ${SRTE} a b)
expect(help 0 "Exit status:" "^$" ${SRTE} --help)
# `-` reads standard input, as a script.
execute_process(COMMAND ${SRTE} - INPUT_FILE ${DIR}/ok.srte OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "\"base\": 15000, \"size\": 10")
  set(failures "${failures}\ndash: exit ${rc}, stdout [${out}]")
endif()
# The error of a continued command names the line of the faulty word; nothing after it runs.
expect(continued 1 "^$" "^${DIR}/continued.srte:4: error: weight 0: " ${SRTE} ${DIR}/continued.srte)
# A backslash on the last line is an error, and the command it began does not run.
expect(dangling 1 "^$"
       "dangling.srte:2: error: the command continued with '\\\\' but the input ends here\n$"
       ${SRTE} ${DIR}/dangling.srte)

if(failures)
  message(FATAL_ERROR "srte input handling:${failures}")
endif()
