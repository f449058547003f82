# Chooses libubox and libuci: the installed ones (OpenWrt SDK, or a prefix in
# CMAKE_PREFIX_PATH) or the project's own host stand-ins in hostdeps/.
# Whatever is chosen is reachable as the targets rk::ubox and rk::uci, which
# programs link, and rk::ubox_so and rk::uci_so, which librouterkit.so links
# (the same ones but in a cross build with the stand-ins, where programs take
# their static archives).
string(TOUPPER "${ROUTERKIT_HOSTDEPS}" _rk_hostdeps)
if(NOT _rk_hostdeps MATCHES "^(AUTO|ON|OFF)$")
  message(FATAL_ERROR "ROUTERKIT_HOSTDEPS must be AUTO, ON or OFF, not '${ROUTERKIT_HOSTDEPS}'")
endif()

set(RK_USE_STANDINS OFF)
if(_rk_hostdeps STREQUAL "ON")
  set(RK_USE_STANDINS ON)
else()
  find_path(RK_UBOX_INCLUDE_DIR libubox/uloop.h)
  find_library(RK_UBOX_LIBRARY ubox)
  find_path(RK_UCI_INCLUDE_DIR uci.h)
  find_library(RK_UCI_LIBRARY uci)
  if(RK_UBOX_INCLUDE_DIR AND RK_UBOX_LIBRARY AND RK_UCI_INCLUDE_DIR AND RK_UCI_LIBRARY)
    set(RK_USE_STANDINS OFF)
  elseif(_rk_hostdeps STREQUAL "OFF")
    message(FATAL_ERROR "ROUTERKIT_HOSTDEPS=OFF but libubox/libuci were not found "
                        "(ubox: ${RK_UBOX_LIBRARY}, uci: ${RK_UCI_LIBRARY}); set CMAKE_PREFIX_PATH")
  else()
    set(RK_USE_STANDINS ON)
  endif()
endif()

if(RK_USE_STANDINS)
  message(STATUS "routerkit: using the host stand-ins for libubox and libuci (hostdeps/)")
  # Installed, they live in a directory of routerkit's own, which only its
  # .pc and CMake files name, so that nothing else on the system takes them
  # for the real libraries.
  set(RK_HOSTDEPS_SUBDIR routerkit/hostdeps)
  set(RK_HOSTDEPS_LIBDIR ${CMAKE_INSTALL_LIBDIR}/${RK_HOSTDEPS_SUBDIR})
  set(RK_HOSTDEPS_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/${RK_HOSTDEPS_SUBDIR})
  add_subdirectory(${PROJECT_SOURCE_DIR}/hostdeps ${PROJECT_BINARY_DIR}/hostdeps)
  foreach(_rk_lib ubox uci)
    if(TARGET ${_rk_lib}_static)
      add_library(rk::${_rk_lib} ALIAS ${_rk_lib}_static)
    else()
      add_library(rk::${_rk_lib} ALIAS ${_rk_lib})
    endif()
    add_library(rk::${_rk_lib}_so ALIAS ${_rk_lib})
  endforeach()
else()
  message(STATUS "routerkit: using the installed libubox (${RK_UBOX_LIBRARY}) and libuci (${RK_UCI_LIBRARY})")
  add_library(rk_ubox_imported SHARED IMPORTED GLOBAL)
  set_target_properties(rk_ubox_imported PROPERTIES
    IMPORTED_LOCATION "${RK_UBOX_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${RK_UBOX_INCLUDE_DIR}")
  add_library(rk_uci_imported SHARED IMPORTED GLOBAL)
  set_target_properties(rk_uci_imported PROPERTIES
    IMPORTED_LOCATION "${RK_UCI_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${RK_UCI_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES rk_ubox_imported)
  foreach(_rk_lib ubox uci)
    add_library(rk::${_rk_lib} ALIAS rk_${_rk_lib}_imported)
    add_library(rk::${_rk_lib}_so ALIAS rk_${_rk_lib}_imported)
  endforeach()
endif()

# Lua 5.1 and json-c come from the system, found with pkg-config, as
# rk::lua and rk::jsonc for programs and rk::lua_so and rk::jsonc_so for
# librouterkit.so. The statically linked programs of a cross build are given
# the archives by path (not every linker takes the archive for -l under
# -static), the shared library always the shared objects.
# Debian names Lua 5.1 "lua5.1" (headers in include/lua5.1); OpenWrt installs
# it as "lua", headers directly in include/.
find_package(PkgConfig REQUIRED)
pkg_search_module(RK_LUA REQUIRED lua5.1 lua)
if(NOT RK_LUA_VERSION MATCHES "^5\\.1")
  message(FATAL_ERROR "routerkit needs Lua 5.1; pkg-config found ${RK_LUA_MODULE_NAME} ${RK_LUA_VERSION}")
endif()
pkg_check_modules(RK_JSONC REQUIRED json-c)
foreach(_rk_dep LUA JSONC)
  string(TOLOWER ${_rk_dep} _rk_name)
  foreach(_rk_kind "" _so)
    add_library(rk_${_rk_name}${_rk_kind} INTERFACE)
    target_include_directories(rk_${_rk_name}${_rk_kind} INTERFACE ${RK_${_rk_dep}_INCLUDE_DIRS})
    target_link_directories(rk_${_rk_name}${_rk_kind} INTERFACE ${RK_${_rk_dep}_LIBRARY_DIRS})
    add_library(rk::${_rk_name}${_rk_kind} ALIAS rk_${_rk_name}${_rk_kind})
  endforeach()
  target_link_libraries(rk_${_rk_name}_so INTERFACE ${RK_${_rk_dep}_LIBRARIES})
  if(CMAKE_CROSSCOMPILING)
    foreach(_rk_lib ${RK_${_rk_dep}_STATIC_LIBRARIES})
      foreach(_rk_dir ${RK_${_rk_dep}_STATIC_LIBRARY_DIRS})
        if(EXISTS ${_rk_dir}/lib${_rk_lib}.a)
          set(_rk_lib ${_rk_dir}/lib${_rk_lib}.a)
          break()
        endif()
      endforeach()
      target_link_libraries(rk_${_rk_name} INTERFACE ${_rk_lib})
    endforeach()
  else()
    target_link_libraries(rk_${_rk_name} INTERFACE ${RK_${_rk_dep}_LIBRARIES})
  endif()
endforeach()
# Lua's luaconf.h includes a header of the target's own (multiarch) directory.
if(RK_CROSS_DEPS AND CMAKE_LIBRARY_ARCHITECTURE)
  target_include_directories(rk_lua INTERFACE ${RK_CROSS_DEPS}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
