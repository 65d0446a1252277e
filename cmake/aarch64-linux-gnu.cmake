# 64-bit ARM from Debian's cross compiler; programs run under qemu-aarch64.
set(processor aarch64)
set(compiler aarch64-linux-gnu)
set(debian arm64)
set(multiarch aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${compiler_root} -E LD_LIBRARY_PATH=${mxml_libraries})
