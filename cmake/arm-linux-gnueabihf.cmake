# 32-bit ARM (hard float) from Debian's cross compiler; programs run under qemu-arm.
# Mini-XML for the target is unpacked by scripts/fetch-mxml armhf, never installed over the system.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

cmake_path(SET APPCORE_ARM_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${APPCORE_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# pkg-config sees the target's packages only.
set(ENV{PKG_CONFIG_LIBDIR} ${APPCORE_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${APPCORE_ARM_SYSROOT})

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf
    -E LD_LIBRARY_PATH=${APPCORE_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf)
