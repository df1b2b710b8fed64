# Cross build for the camera: 32-bit ARM, hard float, NEON; tests run under qemu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KELO_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER   ${KELO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KELO_TRIPLET}-g++)
set(CMAKE_C_FLAGS_INIT   "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")

set(CMAKE_LIBRARY_ARCHITECTURE ${KELO_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${KELO_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_LIBRARY_PATH /usr/lib/${KELO_TRIPLET})

# Multiarch .pc files of the armhf -dev packages.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${KELO_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/${KELO_TRIPLET})
