# Cross-compiling for 32-bit ARM (arm-linux-gnueabihf) with Debian's cross toolchain.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DARMHF_SYSROOT=/abs/sysroot
# The sysroot comes from scripts/mk-armhf-sysroot.sh; tests then run through qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_SYSROOT)
if(NOT ARMHF_SYSROOT AND DEFINED ENV{ARMHF_SYSROOT})
  set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
endif()
if(NOT ARMHF_SYSROOT)
  message(FATAL_ERROR "Set ARMHF_SYSROOT to a sysroot made by scripts/mk-armhf-sysroot.sh")
endif()
set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)  # the host's protoc
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm-static -L ${ARMHF_SYSROOT})
