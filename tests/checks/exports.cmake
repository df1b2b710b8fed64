# The shared object as services see it: what it needs (NEEDED), its soname,
# and what it exports. Four lists must agree name for name: what the headers
# declare KELO_EXPORT, what the object exports, the version script
# (cmake/kelo_util.map) and debian/libkelo-util0.symbols. A C++ name or an
# internal helper in the object is a leak; a declared name missing from the
# object cannot be linked; a lagging symbols file breaks the package.
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
# libc and the declared dependencies; a sanitizer runtime (and the dynamic
# linker its instrumentation calls) only in a sanitizer build. stb is
# compiled in, so libstb must not come back; libstdc++ or libgcc_s here
# means the C++ runtime crept in.
set(allowed "^(libc\\.so\\.6|libev\\.so\\.[0-9]+|libjson-c\\.so\\.[0-9]+|libpthread\\.so\\.0|libm\\.so\\.6)$")
if(C_FLAGS MATCHES "-fsanitize")
  set(sanitizer "^(libasan|libubsan|libtsan|ld-linux[-a-z0-9_.]*)\\.so\\.[0-9]+$")
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
  string(REPLACE ";" " @SEMI@ " pre "${pre}")  # ";" would split CMake lists
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
# What follows the export attribute up to "(" or ";" ends with the name.
string(REGEX MATCHALL "visibility *\\( *\"default\" *\\) *\\) *\\)[^@(]*" decls "${public}")
set(declared "")
foreach(d IN LISTS decls)
  string(REGEX MATCH "[A-Za-z_][A-Za-z0-9_]* *$" name "${d}")
  string(STRIP "${name}" name)
  list(APPEND declared ${name})
endforeach()
list(REMOVE_DUPLICATES declared)

# Names of the version script's global list and of the symbols file.
file(READ ${SOURCE_DIR}/cmake/kelo_util.map map)
string(REGEX REPLACE "/\\*([^*]|\\*[^/])*\\*/" "" map "${map}")
string(REGEX MATCH "global:([^:]*)local:" _ "${map}")
string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*" script "${CMAKE_MATCH_1}")
file(STRINGS ${SOURCE_DIR}/debian/libkelo-util0.symbols symlines REGEX "^ [A-Za-z_]")
set(symfile "")
foreach(l IN LISTS symlines)
  string(REGEX MATCH "^ ([A-Za-z_][A-Za-z0-9_]*)@KELO_UTIL_0 " _ "${l}")
  if(NOT CMAKE_MATCH_1)
    message(FATAL_ERROR "exports: symbols file line without the KELO_UTIL_0 version: '${l}'")
  endif()
  if(NOT CMAKE_MATCH_1 STREQUAL "KELO_UTIL_0")
    list(APPEND symfile ${CMAKE_MATCH_1})
  endif()
endforeach()

# Linker-made markers that every shared object carries, and the version node.
set(markers _init _fini __bss_start _edata _end __bss_start__ __bss_end__ _bss_end__ __end__ KELO_UTIL_0)
string(REPLACE "\n" ";" sym_lines "${syms}")
set(exported "")
set(bad "")
foreach(line IN LISTS sym_lines)
  if(NOT line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) ([^ @]+)")
    continue()
  endif()
  set(name ${CMAKE_MATCH_2})
  if(name IN_LIST markers)
    continue()
  endif()
  if(sanitizer AND name MATCHES "^__(odr_asan|asan|ubsan|tsan|sancov)")
    continue()  # instrumentation of a sanitizer build
  endif()
  list(APPEND exported ${name})
  if(NOT line MATCHES "@@?KELO_UTIL_0$")
    list(APPEND bad "${name} (not versioned KELO_UTIL_0: version script not applied?)")
  endif()
  if(name MATCHES "^_Z")
    list(APPEND bad "${name} (C++ name)")
  elseif(NOT name IN_LIST declared)
    list(APPEND bad "${name} (exported, not declared KELO_EXPORT in include/kelo)")
  endif()
endforeach()
list(LENGTH exported count)
if(count EQUAL 0)
  message(FATAL_ERROR "exports: no symbols found in ${LIB}")
endif()

# Every list against the declared set, both ways.
foreach(what exported script symfile)
  set(missing ${declared})
  list(REMOVE_ITEM missing ${${what}})
  set(extra ${${what}})
  list(REMOVE_ITEM extra ${declared})
  foreach(n IN LISTS missing)
    list(APPEND bad "${n} (declared in include/kelo, missing from ${what})")
  endforeach()
  foreach(n IN LISTS extra)
    list(APPEND bad "${n} (in ${what}, not declared in include/kelo)")
  endforeach()
endforeach()
if(bad)
  list(REMOVE_DUPLICATES bad)
  string(REPLACE ";" "\n  " bad "${bad}")
  message(FATAL_ERROR "exports: header declarations, exports, cmake/kelo_util.map and "
                      "debian/libkelo-util0.symbols disagree:\n  ${bad}")
endif()
message(STATUS "exports: ${count} symbols; headers, object, version script and symbols file agree")
