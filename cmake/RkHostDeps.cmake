# Chooses libubox and libuci: the installed ones (OpenWrt SDK, or a prefix in
# CMAKE_PREFIX_PATH) or the project's own host stand-ins in hostdeps/.
# Whatever is chosen is reachable as the targets rk::ubox and rk::uci.
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
  add_subdirectory(${PROJECT_SOURCE_DIR}/hostdeps ${PROJECT_BINARY_DIR}/hostdeps)
  add_library(rk::ubox ALIAS ubox)
  add_library(rk::uci ALIAS uci)
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
  add_library(rk::ubox ALIAS rk_ubox_imported)
  add_library(rk::uci ALIAS rk_uci_imported)
endif()

# Lua 5.1 and json-c come from the system, found with pkg-config, as
# rk::lua and rk::jsonc. Libraries are named (-l) rather than given as paths,
# so the statically linked test programs of a cross build take the archives
# while the shared library takes the shared objects.
find_package(PkgConfig REQUIRED)
pkg_check_modules(RK_LUA REQUIRED lua5.1)
pkg_check_modules(RK_JSONC REQUIRED json-c)
foreach(_rk_dep LUA JSONC)
  string(TOLOWER ${_rk_dep} _rk_name)
  add_library(rk_${_rk_name} INTERFACE)
  target_include_directories(rk_${_rk_name} INTERFACE ${RK_${_rk_dep}_INCLUDE_DIRS})
  target_link_directories(rk_${_rk_name} INTERFACE ${RK_${_rk_dep}_LIBRARY_DIRS})
  if(CMAKE_CROSSCOMPILING)
    target_link_libraries(rk_${_rk_name} INTERFACE ${RK_${_rk_dep}_STATIC_LIBRARIES})
  else()
    target_link_libraries(rk_${_rk_name} INTERFACE ${RK_${_rk_dep}_LIBRARIES})
  endif()
  add_library(rk::${_rk_name} ALIAS rk_${_rk_name})
endforeach()
# Lua's luaconf.h includes a header of the target's own (multiarch) directory.
if(RK_CROSS_DEPS)
  target_include_directories(rk_lua INTERFACE ${RK_CROSS_DEPS}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
