# The data bridges against lua-cjson and json-c on the same documents.
add_executable(rk_bridge_bench ${CMAKE_CURRENT_LIST_DIR}/bridge_bench.cc)
target_link_libraries(rk_bridge_bench PRIVATE routerkit_obj benchmark::benchmark_main)
