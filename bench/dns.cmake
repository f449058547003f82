# DNS client benchmarks: routerkit beside c-ares on the same uloop and the
# same local responder (the tests' own, tests/support), a bare UDP floor,
# cache hits, memory probes. They need port 53: run them with
# bench/run-dns-bench.sh (private namespaces).
find_path(RK_CARES_INCLUDE_DIR ares.h)
find_library(RK_CARES_LIBRARY cares)
if(NOT TARGET rk_testsupport)
  message(WARNING "dns_bench needs the test support (ROUTERKIT_BUILD_TESTS): not built")
elseif(RK_CARES_INCLUDE_DIR AND RK_CARES_LIBRARY)
  add_executable(dns_bench ${CMAKE_CURRENT_LIST_DIR}/dns_bench.cc)
  target_include_directories(dns_bench PRIVATE ${RK_CARES_INCLUDE_DIR})
  target_link_libraries(dns_bench PRIVATE routerkit_obj rk_testsupport Threads::Threads benchmark::benchmark
                        ${RK_CARES_LIBRARY})
else()
  message(WARNING "c-ares (libc-ares-dev) not found: dns_bench is not built")
endif()
