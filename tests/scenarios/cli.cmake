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
# Standard input is read once, and not as a script when the session goes on from it.
expect(stdin-twice 2 "^$" "standard input can be read once" ${SRTE} - -)
expect(stdin-interactive 2 "^$" "standard input can be read once, and not with -i" ${SRTE} -i -)
expect(version 0 "^srte [0-9]+\\.[0-9]+\n$" "^$" ${SRTE} --version)
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

# Several scripts run in order in one session: the second sees what the first made; the first
# error stops them, naming its file.
file(WRITE ${DIR}/second.srte "show mpls json\n")
file(WRITE ${DIR}/refused.srte "label-range srgb base 16000 size 0\n")
expect(files-in-order 0 "\"base\": 15000, \"size\": 10" "^$"
       ${SRTE} ${DIR}/ok.srte ${DIR}/second.srte)
expect(files-stop 1 "^$" "^${DIR}/refused.srte:1: error: size 0" ${SRTE} ${DIR}/refused.srte
       ${DIR}/ok.srte)
# -x prints each command after the prompt string before its output, and what run and advance did;
# comments and blank lines are not commands.
file(WRITE ${DIR}/echo.srte "# a comment\n\nadvance 1.5\nrun\nshow scheduler json\n")
expect(echo 0
       "^srte> advance 1.5\nadvance: 0 task runs, virtual time 1.5 s\nsrte> run\nrun: 0 task runs, virtual time 1.5 s\nsrte> show scheduler json\n{"
       "^$" ${SRTE} -x ${DIR}/echo.srte)
# Without -x, a script prints only what it shows.
expect(no-echo 0 "^{\n  \"scheduler\"" "^$" ${SRTE} ${DIR}/echo.srte)
# The demo is echoed.
expect(demo-echoed 0 "srte> show policies\n" "^$" ${SRTE} --demo)
# A byte-order mark at the start of a file is not part of its first word.
string(ASCII 239 187 191 bom)
file(WRITE ${DIR}/bom.srte "${bom}label-range srlb base 15000 size 10\nshow mpls json\n")
expect(bom 0 "\"base\": 15000, \"size\": 10" "^$" ${SRTE} ${DIR}/bom.srte)
# A line longer than 1 MiB is refused with its line number, at once and in bounded memory: a
# device without newlines too.
string(REPEAT "x" 1100000 long)
file(WRITE ${DIR}/long.srte "label-range srlb base 15000 size 10\n# ${long}\nshow mpls\n")
expect(long-line 1 "^$" "^${DIR}/long.srte:2: error: line longer than 1048576 bytes" ${SRTE}
       ${DIR}/long.srte)
if(EXISTS /dev/zero)
  expect(dev-zero 1 "^$" "^/dev/zero:1: error: line longer than 1048576 bytes" ${SRTE} /dev/zero)
endif()
# -i: the session goes on after the scripts with standard input's commands, which see what the
# scripts made; an error there does not end it, and carries no line number.
file(WRITE ${DIR}/session.txt "show mpls json\nweight\nquit\n")
execute_process(COMMAND ${SRTE} -i ${DIR}/ok.srte INPUT_FILE ${DIR}/session.txt
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "srte> {\n.*\"base\": 15000, \"size\": 10.*srte> srte> \n?$"
   OR NOT err MATCHES "^error: unknown command 'weight'")
  set(failures "${failures}\ninteractive: exit ${rc}, stdout [${out}], stderr [${err}]")
endif()
# A script that fails under -i leaves the session going with what ran.
execute_process(COMMAND ${SRTE} -i ${DIR}/ok.srte ${DIR}/refused.srte INPUT_FILE ${DIR}/session.txt
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "\"base\": 15000"
   OR NOT err MATCHES "refused.srte:1: error: size 0.*goes on interactively")
  set(failures "${failures}\ninteractive after error: exit ${rc}, stdout [${out}], stderr [${err}]")
endif()

# The processes' options: a value out of its range is refused with what it takes, before anything
# is opened (no router is made).
expect(agent-srlb-order 2 "^$" "^srte agent: --srlb takes FIRST-LAST, labels from 16 to 1048575"
       ${SRTE} agent --router cli-none --srlb 900-800)
expect(agent-resolve-reserved 2 "^$" "^srte agent: --resolve takes FIRST-LAST, labels from 16 to"
       ${SRTE} agent --router cli-none --resolve 15-20)
expect(agent-srlb-beyond 2 "^$" "^srte agent: --srlb takes FIRST-LAST" ${SRTE} agent --router
       cli-none --srlb 16-1048576)
expect(agent-no-value 2 "^$" "^srte agent: '--srlb' needs a value" ${SRTE} agent --router cli-none
       --srlb)
expect(feed-paths 2 "^$" "^srte feed: --paths takes a count below 10\\^9" ${SRTE} feed --router
       cli-none --paths 1000000000)
expect(feed-no-paths 2 "^$" "^srte feed: --paths N is required" ${SRTE} feed --router cli-none)
if(EXISTS /dev/shm/srte.cli-none.policyInput-bgp OR EXISTS /dev/shm/srte-agent.cli-none.lock)
  set(failures "${failures}
refused options: a table or lock of router cli-none was made")
endif()

if(failures)
  message(FATAL_ERROR "srte input handling:${failures}")
endif()
