# Cross build for a Debian multiarch target: the cross compiler of
# RK_CROSS_TRIPLET, the target's libraries from /usr/lib/<triplet> (installed
# with dpkg --add-architecture), and its programs run under qemu-user with the
# target's loader and libraries from /usr/<triplet>. Included by the
# toolchain-<arch>.cmake files.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${RK_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${RK_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${RK_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${RK_CROSS_TRIPLET})
# Only the target's own directories for libraries and packages; programs are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/${RK_CROSS_TRIPLET} /usr/lib/${RK_CROSS_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${RK_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR ${RK_CROSS_QEMU} -L /usr/${RK_CROSS_TRIPLET})
# Target libraries unpacked outside the system (scripts/bootstrap.sh does so
# for Lua when its package cannot be installed): found there first.
# The compiler checks read this file again, and the environment they leave
# is the one configuring goes on with: they must see RK_CROSS_DEPS too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RK_CROSS_DEPS)
if(RK_CROSS_DEPS)
  set(ENV{PKG_CONFIG_LIBDIR} ${RK_CROSS_DEPS}/usr/lib/${RK_CROSS_TRIPLET}/pkgconfig:$ENV{PKG_CONFIG_LIBDIR})
endif()
