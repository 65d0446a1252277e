# Included by the toolchain files of Debian's cross compilers, which set
#   processor  the target's name to CMake
#   compiler   the prefix of the compiler's programs
#   debian     the target's name to Debian; scripts/fetch-mxml gets its Mini-XML, which is never
#              installed over the system
#   multiarch  the folder of Debian's libraries for it
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)

cmake_path(SET sysroot NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${debian})
set(compiler_root /usr/${compiler})
set(mxml_libraries ${sysroot}/usr/lib/${multiarch})
set(CMAKE_FIND_ROOT_PATH ${compiler_root} ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# pkg-config sees the target's packages only.
set(ENV{PKG_CONFIG_LIBDIR} ${mxml_libraries}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
