# 32-bit big-endian MIPS (MIPS32r2) with musl, a router's own CPU and C library:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mips.cmake -DRK_CROSS_DEPS=<dir>
# Debian has neither the compiler nor the target's libraries; scripts/bootstrap.sh
# (cross mips) puts them into build/mips-deps: <dir>/bin holds the compiler
# drivers (zig, which carries musl and its own C++ library) and <dir>/usr the
# target's Lua 5.1 (installed as OpenWrt does), json-c and GoogleTest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
# The compiler checks read this file again and must see RK_CROSS_DEPS too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RK_CROSS_DEPS)
if(NOT RK_CROSS_DEPS OR NOT EXISTS ${RK_CROSS_DEPS}/bin/cc)
  message(FATAL_ERROR "toolchain-mips.cmake: RK_CROSS_DEPS must name the directory "
                      "scripts/bootstrap.sh cross mips prepares (build/mips-deps)")
endif()
set(CMAKE_C_COMPILER ${RK_CROSS_DEPS}/bin/cc)
set(CMAKE_CXX_COMPILER ${RK_CROSS_DEPS}/bin/c++)
set(CMAKE_AR ${RK_CROSS_DEPS}/bin/ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${RK_CROSS_DEPS}/bin/ranlib CACHE FILEPATH "")
set(CMAKE_FIND_ROOT_PATH ${RK_CROSS_DEPS}/usr)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${RK_CROSS_DEPS}/usr/lib/pkgconfig)
# The test programs are linked statically (cmake/RkTesting.cmake), so the
# emulator needs no target root.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips)
