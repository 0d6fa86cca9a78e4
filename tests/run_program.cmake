# Runs PROGRAM with ARGS and compares its exit status and standard output exactly.
# EXPECT_STDOUT may contain \n escapes.
separate_arguments(arg_list UNIX_COMMAND "${ARGS}")
execute_process(COMMAND ${PROGRAM} ${arg_list} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REPLACE "\\n" "\n" expected "${EXPECT_STDOUT}")
if(NOT status STREQUAL EXPECT_STATUS)
  message(FATAL_ERROR "exit status ${status}, expected ${EXPECT_STATUS}\nstdout:\n${out}\nstderr:\n${err}")
endif()
if(NOT out STREQUAL expected)
  message(FATAL_ERROR "stdout differs\n--- got ---\n${out}\n--- expected ---\n${expected}")
endif()
