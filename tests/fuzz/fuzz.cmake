# The libFuzzer targets (SRTE_FUZZ=ON, clang): each is one tests/fuzz/<name>.cpp linked against the
# host and the core, built with the coverage and sanitizers set in the top CMakeLists.txt.
foreach(name input_record script_line script)
  add_executable(fuzz_${name} ${CMAKE_SOURCE_DIR}/tests/fuzz/${name}.cpp)
  target_link_libraries(fuzz_${name} PRIVATE srteagent)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
endforeach()
