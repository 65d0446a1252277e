# musl on this processor, static programs, from Debian's musl-tools and the host's compiler.  The
# library uses C++ headers only; its tests need a C++ run time as well, see musl/runtime.c.
# scripts/musl-sysroot builds that and Mini-XML.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_HOST_SYSTEM_PROCESSOR})
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)

execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE own OUTPUT_STRIP_TRAILING_WHITESPACE)
set(host ${CMAKE_HOST_SYSTEM_PROCESSOR}-linux)
cmake_path(SET APPCORE_MUSL_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-musl)
# To compile, what musl-gcc asks of the compiler, in words that ccache understands; to link, its own.
set(headers "-isystem /usr/include/${host}-musl -isystem ${own}")
set(CMAKE_C_FLAGS_INIT "-nostdinc ${headers}")
set(CMAKE_CXX_FLAGS_INIT "-nostdinc -isystem ${CMAKE_CURRENT_LIST_DIR}/musl -isystem /usr/include/c++/${version} \
-isystem /usr/include/${host}-gnu/c++/${version} ${headers}")
find_program(APPCORE_MUSL_GCC musl-gcc REQUIRED)
file(STRINGS ${APPCORE_MUSL_GCC} line REGEX "^exec ")
string(REGEX REPLACE ".*\"\\$@\" " "" CMAKE_SHARED_LINKER_FLAGS_INIT "${line}")
# Tests stand in front of single functions whose objects in the archive hold others as well.
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT} -static -Wl,-z,muldefs")
set(APPCORE_CXX_RUNTIME ${APPCORE_MUSL_SYSROOT}/lib/runtime.o)

set(CMAKE_FIND_ROOT_PATH ${APPCORE_MUSL_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${APPCORE_MUSL_SYSROOT}/lib/pkgconfig)
unset(ENV{PKG_CONFIG_SYSROOT_DIR})
