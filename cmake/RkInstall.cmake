install(TARGETS routerkit
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/routerkit
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

# Daemons run uloop and UCI beside the library, so the .pc file hands out both.
set(RK_PC_LIBS "-lrouterkit -lubox -luci")
if(RK_USE_STANDINS)
  set(RK_PC_NOTE "host stand-ins for libubox and libuci are installed in this prefix")
else()
  set(RK_PC_NOTE "built against the installed libubox and libuci")
endif()
# The .pc file finds its prefix from where it lies, so an installed tree may move.
file(RELATIVE_PATH RK_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" RK_PC_UP "${RK_PC_UP}")
configure_file(${PROJECT_SOURCE_DIR}/routerkit.pc.in ${PROJECT_BINARY_DIR}/routerkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/routerkit.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
