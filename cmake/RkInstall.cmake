install(TARGETS routerkit
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/routerkit
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

# Daemons run uloop and UCI beside the library, so the .pc file hands out both.
set(RK_PC_LIBS "-lrouterkit")
set(RK_PC_CFLAGS "")
if(RK_USE_STANDINS)
  set(RK_PC_NOTE "with the host stand-ins for libubox and libuci")
  # A daemon finds them where the library does, and only through this file.
  string(APPEND RK_PC_CFLAGS " -I\${includedir}/${RK_HOSTDEPS_SUBDIR}")
  set(_rk_dir "\${libdir}/${RK_HOSTDEPS_SUBDIR}")
  string(APPEND RK_PC_LIBS " -L${_rk_dir} -Wl,-rpath,${_rk_dir}")
else()
  set(RK_PC_NOTE "built against the installed libubox and libuci")
  # Real libraries outside the compiler's own search paths (a prefix given to
  # CMake) are named in the .pc file, so a daemon finds them too.
  foreach(dir ${RK_UBOX_INCLUDE_DIR} ${RK_UCI_INCLUDE_DIR})
    if(NOT dir IN_LIST CMAKE_C_IMPLICIT_INCLUDE_DIRECTORIES AND NOT RK_PC_CFLAGS MATCHES "-I${dir}( |$)")
      string(APPEND RK_PC_CFLAGS " -I${dir}")
    endif()
  endforeach()
  foreach(lib ${RK_UBOX_LIBRARY} ${RK_UCI_LIBRARY})
    get_filename_component(dir ${lib} DIRECTORY)
    if(NOT dir IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES AND NOT RK_PC_LIBS MATCHES "-L${dir}( |$)")
      string(APPEND RK_PC_LIBS " -L${dir}")
    endif()
  endforeach()
endif()
string(APPEND RK_PC_LIBS " -lubox -luci")
# The .pc file finds its prefix from where it lies, so an installed tree may move.
file(RELATIVE_PATH RK_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" RK_PC_UP "${RK_PC_UP}")
configure_file(${PROJECT_SOURCE_DIR}/routerkit.pc.in ${PROJECT_BINARY_DIR}/routerkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/routerkit.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The CMake package: find_package(routerkit) gives routerkit::routerkit. Like
# the .pc file, it finds its prefix from where it lies.
include(CMakePackageConfigHelpers)
set(RK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/routerkit)
file(RELATIVE_PATH RK_CMAKE_UP "/${RK_CMAKE_DIR}" "/")
configure_file(${PROJECT_SOURCE_DIR}/cmake/routerkitConfig.cmake.in
               ${PROJECT_BINARY_DIR}/routerkitConfig.cmake @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/routerkitConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/routerkitConfig.cmake
              ${PROJECT_BINARY_DIR}/routerkitConfigVersion.cmake
        DESTINATION ${RK_CMAKE_DIR})
