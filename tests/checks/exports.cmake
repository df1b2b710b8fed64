# The shared object as services see it: what it needs (NEEDED), its soname,
# and what it exports. Only the C interface of include/kelo/*.h may be
# visible; a C++ name or an internal helper there is a leak.
#   cmake -DLIB=... -DSOURCE_DIR=... -DREADELF=... -DNM=... -DC_COMPILER=... -DC_FLAGS=... -P exports.cmake
cmake_minimum_required(VERSION 3.25)

foreach(v LIB SOURCE_DIR READELF NM C_COMPILER)
  if(NOT ${v})
    message(FATAL_ERROR "exports: ${v} not given")
  endif()
endforeach()

execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dyn RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "exports: ${READELF} -d ${LIB} failed")
endif()

# ---- soname ----------------------------------------------------------------
string(REGEX MATCH "\\(SONAME\\)[^[]*\\[([^]]*)\\]" _ "${dyn}")
if(NOT CMAKE_MATCH_1 STREQUAL "libkelo_util.so.0")
  message(FATAL_ERROR "exports: SONAME is '${CMAKE_MATCH_1}', want libkelo_util.so.0")
endif()

# ---- NEEDED ------------------------------------------------------------------
# libc, the declared dependencies and glibc's own pieces; a sanitizer runtime
# only in a sanitizer build. libstdc++ or libgcc_s here means the C++ runtime
# crept in.
set(allowed "^(libc\\.so\\.6|libev\\.so\\.[0-9]+|libjson-c\\.so\\.[0-9]+|libstb\\.so\\.[0-9]+|libpthread\\.so\\.0|libm\\.so\\.6|ld-linux[-a-z0-9_.]*\\.so\\.[0-9]+)$")
if(C_FLAGS MATCHES "-fsanitize")
  set(sanitizer "^(libasan|libubsan|libtsan)\\.so\\.[0-9]+$")
endif()
string(REGEX MATCHALL "\\(NEEDED\\)[^[]*\\[[^]]*\\]" needed_lines "${dyn}")
set(needed "")
foreach(line IN LISTS needed_lines)
  string(REGEX REPLACE ".*\\[([^]]*)\\]" "\\1" lib "${line}")
  list(APPEND needed ${lib})
  if(lib MATCHES "${allowed}")
    continue()
  endif()
  if(sanitizer AND lib MATCHES "${sanitizer}")
    continue()
  endif()
  message(FATAL_ERROR "exports: unexpected NEEDED entry ${lib} (all: ${needed})")
endforeach()
if(NOT needed MATCHES "libc\\.so\\.6")
  message(FATAL_ERROR "exports: libc.so.6 not among NEEDED (${needed})")
endif()
message(STATUS "NEEDED: ${needed}")

# ---- exported symbols ------------------------------------------------------
execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE syms RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "exports: ${NM} -D --defined-only ${LIB} failed")
endif()

# Identifiers declared by the public headers, after their macros are expanded
# (the log_* family is declared through a macro). Only lines that come from
# include/kelo count, not the system headers they include.
separate_arguments(flags UNIX_COMMAND "${C_FLAGS}")
file(GLOB headers ${SOURCE_DIR}/include/kelo/*.h)
set(public "")
foreach(h IN LISTS headers)
  execute_process(COMMAND ${C_COMPILER} ${flags} -std=c11 -E -I${SOURCE_DIR}/include ${h}
    OUTPUT_VARIABLE pre RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "exports: cannot preprocess ${h}: ${err}")
  endif()
  string(REPLACE ";" " " pre "${pre}")
  string(REPLACE "\n" ";" pre_lines "${pre}")
  set(ours FALSE)
  foreach(l IN LISTS pre_lines)
    if(l MATCHES "^# [0-9]+ \"([^\"]*)\"")
      if(CMAKE_MATCH_1 MATCHES "/include/kelo/[^/]*\\.h$")
        set(ours TRUE)
      else()
        set(ours FALSE)
      endif()
    elseif(ours)
      string(APPEND public " ${l}")
    endif()
  endforeach()
endforeach()
string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*" idents "${public}")
list(REMOVE_DUPLICATES idents)

# Linker-made markers that every shared object carries.
set(markers _init _fini __bss_start _edata _end __bss_start__ __bss_end__ _bss_end__ __end__)
string(REPLACE "\n" ";" sym_lines "${syms}")
set(count 0)
set(bad "")
foreach(line IN LISTS sym_lines)
  if(NOT line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) ([^ @]+)")
    continue()
  endif()
  set(name ${CMAKE_MATCH_2})
  if(name IN_LIST markers)
    continue()
  endif()
  math(EXPR count "${count} + 1")
  if(sanitizer AND name MATCHES "^__(odr_asan|asan|ubsan|tsan|sancov)")
    continue()  # instrumentation of a sanitizer build
  endif()
  if(name MATCHES "^_Z")
    list(APPEND bad "${name} (C++ name)")
  elseif(NOT name IN_LIST idents)
    list(APPEND bad "${name} (not in include/kelo)")
  endif()
endforeach()
if(bad)
  string(REPLACE ";" "\n  " bad "${bad}")
  message(FATAL_ERROR "exports: symbols that must not be exported:\n  ${bad}")
endif()
if(count EQUAL 0)
  message(FATAL_ERROR "exports: no symbols found in ${LIB}")
endif()
message(STATUS "exports: ${count} symbols, all public C names")
