# Finds the declared dependencies (Debian's packages) and wraps them in
# imported targets, for the host and for the armhf cross build alike. They
# are linked by name (-lev, -ljson-c, -lstb) so that one program may be linked
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

find_path(KELO_STB_INCLUDE stb_truetype.h PATH_SUFFIXES stb REQUIRED)
find_library(KELO_STB_LIBRARY stb REQUIRED)
add_library(kelo::stb INTERFACE IMPORTED)
target_include_directories(kelo::stb INTERFACE ${KELO_STB_INCLUDE})
target_link_libraries(kelo::stb INTERFACE stb m)

find_path(KELO_UTHASH_INCLUDE uthash.h REQUIRED)
add_library(kelo::uthash INTERFACE IMPORTED)
target_include_directories(kelo::uthash INTERFACE ${KELO_UTHASH_INCLUDE})
