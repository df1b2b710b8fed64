# Installs into a temporary prefix, checks what lands there, and builds and
# runs a small service against it with exactly the lines README.md shows
# under "Linking a service": the pkg-config command and the CMake lines. The
# service calls libev and json-c itself, so both must come with the library.
# Host builds only: the programs are run.
#   cmake -DSOURCE_DIR=... -DBINARY_DIR=... -DC_COMPILER=... -DCROSSCOMPILING=... -DC_FLAGS=... -P install.cmake
cmake_minimum_required(VERSION 3.25)

if(CROSSCOMPILING)
  message(STATUS "install: skipped in a cross build (the programs would not run here)")
  return()
endif()
foreach(v SOURCE_DIR BINARY_DIR C_COMPILER)
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

# ---- what is installed ---------------------------------------------------------
file(GLOB_RECURSE libs ${prefix}/*/libkelo_util.so.0)
file(GLOB_RECURSE pcs ${prefix}/*/kelo_util.pc)
list(LENGTH pcs npc)
if(NOT libs OR NOT npc EQUAL 1)
  message(FATAL_ERROR "install: want one libkelo_util.so.0 and one kelo_util.pc under ${prefix}: '${libs}' '${pcs}'")
endif()
foreach(f bin/kelo-agent bin/kelo-osd bin/kelo-loglevel bin/kelo-run share/kelo_util/toolchains/armhf.cmake
          share/man/man1/kelo-agent.1 share/man/man1/kelo-run.1 share/man/man3/kelo_otrpc.3
          share/man/man3/otrpc_call.3 share/man/man7/kelo_util.7)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "install: ${f} not installed")
  endif()
endforeach()
load_cache(${BINARY_DIR} READ_WITH_PREFIX cache_ KELO_STRIP_INSTALL CMAKE_READELF)
if(cache_KELO_STRIP_INSTALL)
  file(REAL_PATH ${libs} lib)
  get_filename_component(libname ${lib} NAME)
  get_filename_component(libdir ${lib} DIRECTORY)
  run("readelf -S" ${cache_CMAKE_READELF} -S ${lib})
  if(run_out MATCHES "\\.symtab|\\.debug_info" OR NOT run_out MATCHES "\\.gnu_debuglink")
    message(FATAL_ERROR "install: ${lib} is not stripped with a debug link")
  endif()
  run("readelf -S" ${cache_CMAKE_READELF} -S ${libdir}/.debug/${libname}.debug)
  if(NOT run_out MATCHES "\\.debug_info")
    message(FATAL_ERROR "install: ${libdir}/.debug/${libname}.debug holds no debug info")
  endif()
endif()

# ---- the service, and the README's lines ------------------------------------
file(WRITE ${work}/src/camd.c [=[
#include <ev.h>
#include <json-c/json.h>
#include <kelo/kelo.h>
#include <stdio.h>

static int ping(void *arg, struct json_object *params, struct json_object *reply) {
  (void)arg, (void)params, (void)reply;
  return 0;
}
static int on_reply(void *arg, struct json_object *msg) { return (void)arg, (void)msg, 0; }
static void stop(struct ev_loop *loop, ev_timer *w, int revents) { (void)loop, (void)w, (void)revents, app_break(); }
static const otrpc_method methods[] = {{"camd.ping", ping, NULL, 0}, {NULL, NULL, NULL, 0}};
static app_desc app = {.name = "camd", .methods = methods};

int main(int argc, char **argv) {
  app_init(&app, argc, argv);
  int registered = otrpc_register("camd.status", ping, NULL, 0);
  struct json_object *msg = otrpc_create_message("camd.hello"), *params = NULL;
  json_object_object_get_ex(msg, "params", &params);
  json_object_object_add(params, "cam", json_object_new_string("cam0"));
  int queued = otrpc_call(msg, on_reply, NULL);
  printf("camd %s %d %d\n", json_object_to_json_string_ext(params, 0), registered, queued > 0);
  json_object_put(msg);
  ev_timer t;
  ev_timer_init(&t, stop, 0.05, 0);
  ev_timer_start(EV_DEFAULT, &t);
  app_run();
  return 0;
}
]=])
set(want "camd {\"cam\":\"cam0\"} 0 1\n")

file(READ ${SOURCE_DIR}/README.md readme)
string(REGEX MATCH "\n## Linking a service\n.*" section "${readme}")
string(REGEX MATCH "\n```sh\n([^`]*)```" _ "${section}")
string(STRIP "${CMAKE_MATCH_1}" cc_line)
string(REGEX MATCH "\n```cmake\n([^`]*)```" _ "${section}")
set(cmake_lines "${CMAKE_MATCH_1}")
if(NOT cc_line MATCHES "^cc -o camd camd\\.c " OR NOT cmake_lines MATCHES "find_package\\(kelo_util")
  message(FATAL_ERROR "install: README.md's linking lines not found (got '${cc_line}' and '${cmake_lines}')")
endif()

# The service runs inside the installed kelo-run, where the agent's port and
# /dev/shm are its own; its log goes to a file. A sanitizer build's library
# needs its runtime in the program too.
set(box ${prefix}/bin/kelo-run --)
execute_process(COMMAND ${box} true RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(STATUS "install: skipped: the services cannot run inside kelo-run here: ${err}")
  return()
endif()
get_filename_component(pcdir ${pcs} DIRECTORY)
get_filename_component(libdir ${libs} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
set(ENV{KELO_LOG_FILE} ${work}/camd.log)
set(ENV{LD_LIBRARY_PATH} ${libdir})

# ---- pkg-config: the README's command, cc being the compiler of this build -----
string(REGEX REPLACE "^cc " "\"$CC\" $CFLAGS " cc_cmd "${cc_line}")
set(ENV{CC} ${C_COMPILER})
set(ENV{CFLAGS} "${C_FLAGS}")
run("${cc_line}" sh -c "cd ${work}/src && ${cc_cmd}")
run("the pkg-config service" ${box} ${work}/src/camd)
if(NOT run_out STREQUAL want)
  message(FATAL_ERROR "install: the pkg-config service printed '${run_out}', want '${want}'")
endif()

# ---- find_package: the README's lines in a project of their own ----------------
file(WRITE ${work}/src/CMakeLists.txt
  "cmake_minimum_required(VERSION 3.25)\nproject(camd C)\nadd_executable(camd camd.c)\n${cmake_lines}")
run("configure the find_package project" ${CMAKE_COMMAND} -S ${work}/src -B ${work}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${C_FLAGS}")
run("build the find_package project" ${CMAKE_COMMAND} --build ${work}/build)
unset(ENV{LD_LIBRARY_PATH})
run("the find_package service" ${box} ${work}/build/camd)
if(NOT run_out STREQUAL want)
  message(FATAL_ERROR "install: the find_package service printed '${run_out}', want '${want}'")
endif()
message(STATUS "install: layout checked; the README's pkg-config and CMake lines built services that ran")
