# Long runs with the heap, descriptors and resident memory sampled along the
# way: DNS lookups, pings, script calls, conversions (longrun) and reachd's
# rounds (reachd_longrun). They need port 53 and raw sockets: run them with
# bench/run-longrun.sh (private namespaces).
if(NOT TARGET rk_testsupport)
  message(WARNING "longrun needs the test support (ROUTERKIT_BUILD_TESTS): not built")
else()
  add_executable(longrun ${CMAKE_CURRENT_LIST_DIR}/longrun.cc)
  target_link_libraries(longrun PRIVATE routerkit_obj rk_testsupport)
endif()
add_executable(reachd_longrun ${CMAKE_CURRENT_LIST_DIR}/reachd_longrun.c)
set_target_properties(reachd_longrun PROPERTIES C_STANDARD 99 C_EXTENSIONS OFF)
target_link_libraries(reachd_longrun PRIVATE routerkit rk::jsonc rk::lua)
