# Finds the declared dependencies (Debian's packages) and wraps them in
# imported targets, for the host and for the armhf cross build alike. They
# are linked by name (-lev, -ljson-c) so that one program may be linked
# statically and the library dynamically against the same packages.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

pkg_check_modules(KELO_JSONC REQUIRED json-c)
add_library(kelo::jsonc INTERFACE IMPORTED)
target_include_directories(kelo::jsonc INTERFACE ${KELO_JSONC_INCLUDE_DIRS})
target_link_libraries(kelo::jsonc INTERFACE ${KELO_JSONC_LIBRARIES})

# libev ships no pkg-config file on every distribution; find it directly.
find_path(KELO_EV_INCLUDE ev.h PATH_SUFFIXES libev REQUIRED)
find_library(KELO_EV_LIBRARY ev REQUIRED)
add_library(kelo::ev INTERFACE IMPORTED)
target_include_directories(kelo::ev INTERFACE ${KELO_EV_INCLUDE})
target_link_libraries(kelo::ev INTERFACE ev m)

# stb is header-only here: its libraries are compiled into ours
# (src/osd/stb_libs.cpp, src/osd/stb_file.c), never linked from libstb.so.0.
find_path(KELO_STB_INCLUDE stb_truetype.h PATH_SUFFIXES stb REQUIRED)
add_library(kelo::stb INTERFACE IMPORTED)
target_include_directories(kelo::stb INTERFACE ${KELO_STB_INCLUDE})
target_link_libraries(kelo::stb INTERFACE m)

# src/osd/font_check.cpp follows the reads of this very stb_truetype.h, line
# by line. When Debian ships another one, review the checker against it (and
# run the osd_font_fuzz target), then put the new hash here.
set(KELO_STB_TRUETYPE_SHA256 a34d8d536ce7c11b9163ab2d524721c1f4df1452cce6595c4f11d3048384f925)
file(SHA256 ${KELO_STB_INCLUDE}/stb_truetype.h _kelo_stbtt_hash)
if(NOT _kelo_stbtt_hash STREQUAL KELO_STB_TRUETYPE_SHA256)
  message(FATAL_ERROR "${KELO_STB_INCLUDE}/stb_truetype.h is not the version the font checker "
    "follows (sha256 ${_kelo_stbtt_hash}): review src/osd/font_check.cpp against it, then update "
    "KELO_STB_TRUETYPE_SHA256 in cmake/KeloDeps.cmake")
endif()

find_path(KELO_UTHASH_INCLUDE uthash.h REQUIRED)
add_library(kelo::uthash INTERFACE IMPORTED)
target_include_directories(kelo::uthash INTERFACE ${KELO_UTHASH_INCLUDE})
