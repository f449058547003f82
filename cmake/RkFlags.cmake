# Compiler flags shared by the library, the stand-ins, tests and tools.
set(RK_WARNINGS -Wall -Wextra -Wmissing-declarations)
if(ROUTERKIT_WERROR)
  list(APPEND RK_WARNINGS -Werror)
endif()
add_compile_options(${RK_WARNINGS})
# 64-bit file offsets and inode numbers on 32-bit targets too: without them
# stat, lstat and readdir fail with EOVERFLOW on large file systems.
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(ROUTERKIT_SANITIZE)
  add_compile_options(-fsanitize=${ROUTERKIT_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ROUTERKIT_SANITIZE})
  # GCC's flow analysis sees through ASan's instrumentation badly and reports
  # false maybe-uninitialized inside libstdc++ (std::function in std::regex).
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

if(ROUTERKIT_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()
