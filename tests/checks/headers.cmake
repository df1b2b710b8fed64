# Every public header stands alone: it compiles by itself (and twice, for its
# include guard) as strict C11 and as C++20, warnings as errors.
#   cmake -DSOURCE_DIR=... -DBINARY_DIR=... -DC_COMPILER=... -DCXX_COMPILER=... -DC_FLAGS=... -P headers.cmake
cmake_minimum_required(VERSION 3.25)

foreach(v SOURCE_DIR BINARY_DIR C_COMPILER CXX_COMPILER)
  if(NOT ${v})
    message(FATAL_ERROR "headers: ${v} not given")
  endif()
endforeach()

# json-c's directory, for a header that may come to include it.
set(extra_inc "")
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG AND NOT CROSSCOMPILING)
  execute_process(COMMAND ${PKG_CONFIG} --cflags-only-I json-c OUTPUT_VARIABLE jc OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE rc)
  if(rc EQUAL 0)
    separate_arguments(extra_inc UNIX_COMMAND "${jc}")
  endif()
endif()
separate_arguments(flags UNIX_COMMAND "${C_FLAGS}")
# Sanitizer options change nothing in a syntax check; keep the target options.
list(FILTER flags EXCLUDE REGEX "^-fsanitize|^-fno-sanitize")

set(work ${BINARY_DIR}/header-check)
file(REMOVE_RECURSE ${work})
file(MAKE_DIRECTORY ${work})

file(GLOB headers RELATIVE ${SOURCE_DIR}/include ${SOURCE_DIR}/include/kelo/*.h)
if(NOT headers)
  message(FATAL_ERROR "headers: none found in ${SOURCE_DIR}/include/kelo")
endif()
set(failed "")
foreach(h IN LISTS headers)
  string(MAKE_C_IDENTIFIER ${h} id)
  file(WRITE ${work}/${id}.c "#include <${h}>\n#include <${h}>\nint kelo_header_check_${id};\n")
  file(WRITE ${work}/${id}.cpp "#include <${h}>\n#include <${h}>\nint kelo_header_check_${id};\n")
  execute_process(
    COMMAND ${C_COMPILER} ${flags} -std=c11 -pedantic -Wall -Wextra -Werror -fsyntax-only
            -I${SOURCE_DIR}/include ${extra_inc} ${work}/${id}.c
    RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    list(APPEND failed "${h} as C11:\n${err}")
  endif()
  execute_process(
    COMMAND ${CXX_COMPILER} ${flags} -std=c++20 -pedantic -Wall -Wextra -Werror -fsyntax-only
            -I${SOURCE_DIR}/include ${extra_inc} ${work}/${id}.cpp
    RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    list(APPEND failed "${h} as C++20:\n${err}")
  endif()
endforeach()
if(failed)
  string(REPLACE ";" "\n" failed "${failed}")
  message(FATAL_ERROR "headers: not self-contained:\n${failed}")
endif()
list(LENGTH headers n)
message(STATUS "headers: ${n} headers compile alone as C11 and C++20")
