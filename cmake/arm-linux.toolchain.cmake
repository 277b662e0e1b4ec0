# Cross-building for the head unit (armhf) or a 64-bit ARM board:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux.toolchain.cmake \
#         -DORVANE_ARCH=armhf|arm64 -DORVANE_SYSROOT=/path/to/sysroot
# The sysroot holds the target's Qt, FFmpeg, SDL2 and avahi compat libraries (scripts/sysroot.sh
# makes one from Debian 12), and for the board variant the vendor's codec and display libraries.
# Qt's code generators run on the build machine (cmake/cross-build.cmake); the target's own
# programs, the tests among them, run through qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
if(NOT DEFINED ORVANE_ARCH)
  set(ORVANE_ARCH armhf)
endif()
if(ORVANE_ARCH STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(ORVANE_TRIPLE aarch64-linux-gnu)
  set(ORVANE_QEMU qemu-aarch64-static)
elseif(ORVANE_ARCH STREQUAL "armhf")
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(ORVANE_TRIPLE arm-linux-gnueabihf)
  set(ORVANE_QEMU qemu-arm-static)
else()
  message(FATAL_ERROR "ORVANE_ARCH must be armhf or arm64")
endif()
# try_compile projects read this file again: they need the same choices.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVANE_ARCH ORVANE_SYSROOT)
set(CMAKE_C_COMPILER ${ORVANE_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ORVANE_TRIPLE}-g++)
if(DEFINED ORVANE_SYSROOT)
  set(CMAKE_SYSROOT ${ORVANE_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${ORVANE_SYSROOT})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORVANE_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR} "${ORVANE_SYSROOT}/usr/lib/${ORVANE_TRIPLE}/pkgconfig:${ORVANE_SYSROOT}/usr/share/pkgconfig")
  # Test discovery and the tests run the target's programs with the sysroot's loader and libraries,
  # named in the environment (not by -L) so that the target's programs a test starts find them too.
  set(CMAKE_CROSSCOMPILING_EMULATOR env QEMU_LD_PREFIX=${ORVANE_SYSROOT} ${ORVANE_QEMU})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
