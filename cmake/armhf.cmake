# 32-bit ARM with Debian's cross compiler, against the packages that packaging/install-armhf-packages has unpacked.
# Programs run in the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(DEFINED ENV{NYR_ARMHF_ROOT})
  set(NYR_ARMHF_ROOT $ENV{NYR_ARMHF_ROOT} CACHE PATH "Where the packages are unpacked")
else()
  get_filename_component(NYR_ARMHF_ROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-root ABSOLUTE)
  set(NYR_ARMHF_ROOT ${NYR_ARMHF_ROOT} CACHE PATH "Where the packages are unpacked")
endif()
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NYR_ARMHF_ROOT)
set(CMAKE_SYSROOT ${NYR_ARMHF_ROOT})

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# No word about how GCC 7.1 changed the passing of parameters: all is built with one compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${CMAKE_SYSROOT})
