# Logging: the suppressed leveled call, and logfile_printf against its floor.
add_executable(rk_log_bench ${CMAKE_CURRENT_LIST_DIR}/log_bench.cc)
target_link_libraries(rk_log_bench PRIVATE routerkit_obj benchmark::benchmark_main)
