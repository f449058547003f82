# 32-bit little-endian ARM (Debian armhf): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(RK_CROSS_TRIPLET arm-linux-gnueabihf)
set(RK_CROSS_PROCESSOR arm)
set(RK_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/RkCross.cmake)
