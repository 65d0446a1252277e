# 32-bit x86 from Debian's cross compiler; programs run on this machine, without an emulator, with
# the C library that comes with the compiler.
set(processor i686)
set(compiler i686-linux-gnu)
set(debian i386)
set(multiarch i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${compiler_root}/lib/ld-linux.so.2 \
-Wl,-rpath,${compiler_root}/lib:${mxml_libraries}")
