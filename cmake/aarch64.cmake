# Toolchain file of tools/cross-build: Debian's compilers for 64-bit ARM on a sysroot of Debian's arm64 packages.
# KORVID_SYSROOT names the sysroot, KORVID_CROSS the compiler: gcc or clang.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KORVID_SYSROOT KORVID_CROSS)

set(triple aarch64-linux-gnu)
if(KORVID_CROSS STREQUAL clang)
  set(CMAKE_CXX_COMPILER clang++-14)
  set(CMAKE_CXX_COMPILER_TARGET ${triple})
else()
  set(CMAKE_CXX_COMPILER ${triple}-g++)
endif()
set(CMAKE_SYSROOT ${KORVID_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# It finds the sysroot by QEMU_LD_PREFIX, which the test preset sets.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KORVID_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${KORVID_SYSROOT}/usr/lib/${triple}/pkgconfig:${KORVID_SYSROOT}/usr/share/pkgconfig)
