# The script host against a plain C function and a plain lua_pcall.
add_executable(rk_script_bench ${CMAKE_CURRENT_LIST_DIR}/script_bench.cc)
target_link_libraries(rk_script_bench PRIVATE routerkit_obj benchmark::benchmark_main)
