# Installs into a temporary prefix and builds a small C service against it
# the two ways a service links the library: pkg-config and find_package.
# Host builds only: the programs are run.
#   cmake -DBINARY_DIR=... -DC_COMPILER=... -DCROSSCOMPILING=... -DC_FLAGS=... -P install.cmake
cmake_minimum_required(VERSION 3.25)

if(CROSSCOMPILING)
  message(STATUS "install: skipped in a cross build (the programs would not run here)")
  return()
endif()
foreach(v BINARY_DIR C_COMPILER)
  if(NOT ${v})
    message(FATAL_ERROR "install: ${v} not given")
  endif()
endforeach()

set(work ${BINARY_DIR}/install-check)
set(prefix ${work}/prefix)
file(REMOVE_RECURSE ${work})
file(MAKE_DIRECTORY ${work}/src)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install: ${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
endfunction()

run("cmake --install" ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})

file(WRITE ${work}/src/main.c [=[
#include <kelo/kelo.h>
#include <stdio.h>
int main(void) { printf("kelo %d\n", rand_range(10, 20) < 20 && log_get_facility() == 0); return 0; }
]=])

# A sanitizer build's library needs its runtime in the program too.
separate_arguments(flags UNIX_COMMAND "${C_FLAGS}")

# ---- pkg-config ------------------------------------------------------------
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pcs ${prefix}/*/kelo_util.pc)
list(LENGTH pcs npc)
if(NOT npc EQUAL 1)
  message(FATAL_ERROR "install: expected one kelo_util.pc under ${prefix}, found '${pcs}'")
endif()
get_filename_component(pcdir ${pcs} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
run("pkg-config --cflags" ${PKG_CONFIG} --cflags kelo_util)
string(STRIP "${run_out}" cflags)
run("pkg-config --libs" ${PKG_CONFIG} --libs kelo_util)
string(STRIP "${run_out}" libs)
run("pkg-config --variable=libdir" ${PKG_CONFIG} --variable=libdir kelo_util)
string(STRIP "${run_out}" libdir)
separate_arguments(cflags UNIX_COMMAND "${cflags}")
separate_arguments(libs UNIX_COMMAND "${libs}")
run("cc with pkg-config" ${C_COMPILER} ${flags} -std=c11 -Wall -Werror ${cflags} ${work}/src/main.c
    -o ${work}/with-pkg-config ${libs} -Wl,-rpath,${libdir})
run("the pkg-config program" ${work}/with-pkg-config)
if(NOT run_out STREQUAL "kelo 1\n")
  message(FATAL_ERROR "install: pkg-config program printed '${run_out}'")
endif()

# ---- find_package ------------------------------------------------------------
file(WRITE ${work}/src/CMakeLists.txt [=[
cmake_minimum_required(VERSION 3.25)
project(kelo_consumer C)
find_package(kelo_util 0.1 REQUIRED)
add_executable(with-find-package main.c)
target_link_libraries(with-find-package PRIVATE kelo_util::kelo_util)
]=])
run("configure the find_package project" ${CMAKE_COMMAND} -S ${work}/src -B ${work}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${C_FLAGS}")
run("build the find_package project" ${CMAKE_COMMAND} --build ${work}/build)
run("the find_package program" ${work}/build/with-find-package)
if(NOT run_out STREQUAL "kelo 1\n")
  message(FATAL_ERROR "install: find_package program printed '${run_out}'")
endif()
message(STATUS "install: pkg-config and find_package programs built and ran")
