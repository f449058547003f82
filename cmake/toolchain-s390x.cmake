# 64-bit big-endian (Debian s390x): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-s390x.cmake
set(RK_CROSS_TRIPLET s390x-linux-gnu)
set(RK_CROSS_PROCESSOR s390x)
set(RK_CROSS_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/RkCross.cmake)
