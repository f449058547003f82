# Ping client benchmarks: routerkit beside liboping and a bare raw-socket
# floor (CPU per reply), and beside iputils ping (round-trip times). They
# need raw sockets and a veth peer: run them with bench/run-ping-bench.sh.
find_path(RK_OPING_INCLUDE_DIR oping.h)
find_library(RK_OPING_LIBRARY oping)
if(RK_OPING_INCLUDE_DIR AND RK_OPING_LIBRARY)
  add_executable(ping_bench ${CMAKE_CURRENT_LIST_DIR}/ping_bench.cc)
  target_include_directories(ping_bench PRIVATE ${RK_OPING_INCLUDE_DIR})
  target_link_libraries(ping_bench PRIVATE routerkit_obj ${RK_OPING_LIBRARY})
else()
  message(WARNING "liboping (liboping-dev) not found: ping_bench is not built")
endif()
