# Runs one program and checks its exit status and its output (standard output
# and error together):
#   cmake -DCMD=PROGRAM^^ARG^^... -DSTATUS=N [-DMATCH=regex] -P run_program.cmake
# (the arguments are joined with ^^: cmake would take options after -P for its
# own). CMake's '.' also matches a line break, so "a.*b" means "a, later b".
string(REPLACE "^^" ";" cmd "${CMD}")
execute_process(COMMAND ${cmd} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out TIMEOUT 60)
message("${out}")
if(NOT "${rc}" STREQUAL "${STATUS}")
  message(FATAL_ERROR "exit status ${rc}, wanted ${STATUS}: ${cmd}")
endif()
if(DEFINED MATCH AND NOT out MATCHES "${MATCH}")
  message(FATAL_ERROR "no match for /${MATCH}/ in the output of ${cmd}")
endif()
