# 32-bit x86 from Debian's cross compiler; programs run on this machine, without an emulator, with
# the C library that comes with the compiler.  Mini-XML for the target is unpacked by
# scripts/fetch-mxml i386, never installed over the system.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

cmake_path(SET APPCORE_I686_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-i386)
set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu ${APPCORE_I686_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# pkg-config sees the target's packages only.
set(ENV{PKG_CONFIG_LIBDIR} ${APPCORE_I686_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${APPCORE_I686_SYSROOT})

set(libraries /usr/i686-linux-gnu/lib)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${libraries}/ld-linux.so.2 \
-Wl,-rpath,${libraries}:${APPCORE_I686_SYSROOT}/usr/lib/i386-linux-gnu")
