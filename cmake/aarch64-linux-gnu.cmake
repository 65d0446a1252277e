# 64-bit ARM from Debian's cross compiler; programs run under qemu-aarch64.
# Mini-XML for the target is unpacked by scripts/fetch-mxml arm64, never installed over the system.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

cmake_path(SET APPCORE_AARCH64_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-arm64)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu ${APPCORE_AARCH64_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# pkg-config sees the target's packages only.
set(ENV{PKG_CONFIG_LIBDIR} ${APPCORE_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${APPCORE_AARCH64_SYSROOT})

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu
    -E LD_LIBRARY_PATH=${APPCORE_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu)
