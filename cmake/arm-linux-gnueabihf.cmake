# 32-bit ARM (hard float) from Debian's cross compiler; programs run under qemu-arm.
set(processor arm)
set(compiler arm-linux-gnueabihf)
set(debian armhf)
set(multiarch arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${compiler_root} -E LD_LIBRARY_PATH=${mxml_libraries})
