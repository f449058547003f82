# The data bridges against lua-cjson and json-c on the same documents; built
# against the real libubox, also against its blobmsg_add_object and
# blobmsg_format_json (libblobmsg_json).
add_executable(rk_bridge_bench ${CMAKE_CURRENT_LIST_DIR}/bridge_bench.cc)
target_link_libraries(rk_bridge_bench PRIVATE routerkit_obj benchmark::benchmark_main)
if(NOT RK_USE_STANDINS)
  find_library(RK_BLOBMSG_JSON_LIBRARY blobmsg_json)
  if(RK_BLOBMSG_JSON_LIBRARY)
    target_compile_definitions(rk_bridge_bench PRIVATE RK_HAVE_BLOBMSG_JSON=1)
    target_link_libraries(rk_bridge_bench PRIVATE ${RK_BLOBMSG_JSON_LIBRARY})
  endif()
endif()
