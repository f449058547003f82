# The DNS tests' support library: packet builder, responders, loop helpers,
# syslog capture, dnsmasq runner, result printer. It has no GoogleTest in it
# (the gtest fixtures are header-only), so the benchmarks link it too.
# Included from tests/dns/e2e.cmake and bench/dns.cmake; defined once.
include_guard(GLOBAL)

set(RK_DNSSUPPORT_DIR ${CMAKE_CURRENT_LIST_DIR})
add_library(rk_dnssupport STATIC
  ${RK_DNSSUPPORT_DIR}/dns_client.cc
  ${RK_DNSSUPPORT_DIR}/dns_packet.cc
  ${RK_DNSSUPPORT_DIR}/dns_responder.cc
  ${RK_DNSSUPPORT_DIR}/dnsmasq.cc
  ${RK_DNSSUPPORT_DIR}/loop.cc
  ${RK_DNSSUPPORT_DIR}/syslog_capture.cc)
target_include_directories(rk_dnssupport PUBLIC ${RK_DNSSUPPORT_DIR} ${PROJECT_SOURCE_DIR}/include)
# The client's symbols (asyncDns_destroy, DnsCache_Get) come from whatever
# the program links: routerkit_obj in tests and benchmarks.
target_link_libraries(rk_dnssupport PUBLIC rk::ubox Threads::Threads)
