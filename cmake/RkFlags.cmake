# Compiler flags shared by the library, the stand-ins, tests and tools.
set(RK_WARNINGS -Wall -Wextra -Wmissing-declarations)
if(ROUTERKIT_WERROR)
  list(APPEND RK_WARNINGS -Werror)
endif()
add_compile_options(${RK_WARNINGS})

if(ROUTERKIT_SANITIZE)
  add_compile_options(-fsanitize=${ROUTERKIT_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ROUTERKIT_SANITIZE})
endif()

if(ROUTERKIT_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()
