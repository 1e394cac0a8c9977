# Cross-builds for 32-bit ARM against Debian's armhf libraries, which scripts/armhf-sysroot unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../.cache/armhf/sysroot)
get_filename_component(CMAKE_SYSROOT ${CMAKE_SYSROOT} ABSOLUTE)

find_program(LEDGERD_ARM_COMPILER ${CMAKE_CXX_COMPILER})
find_program(LEDGERD_ARM_EMULATOR qemu-arm-static)
if(NOT LEDGERD_ARM_COMPILER OR NOT LEDGERD_ARM_EMULATOR OR NOT EXISTS ${CMAKE_SYSROOT}/../packages)
  message(FATAL_ERROR "The armhf build needs ${CMAKE_CXX_COMPILER}, qemu-arm-static and Debian's armhf libraries in "
    "${CMAKE_SYSROOT}. scripts/armhf-sysroot installs and unpacks them.")
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})

# GCC 7.1 changed how some arguments are passed and notes it wherever that could matter; nothing here is that old.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Programs of the build, the tests among them, run in user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR ${LEDGERD_ARM_EMULATOR} -L ${CMAKE_SYSROOT})
