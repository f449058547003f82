# End-to-end tests of the DNS client: real sockets on the test's own uloop,
# a responder of the test's own on port 53 and dnsmasq as a real server.
rk_add_gtest(dns_e2e
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/e2e_test.cc
  LIBS routerkit_obj
  NAMESPACE)

# The fuzz corpus replayed through the fuzzer's own entry point.
rk_add_fuzz_replay(dns_fuzz_replay NAMESPACE
  ENTRY ${PROJECT_SOURCE_DIR}/tests/fuzz/dns_datagram_entry.cc
  CORPUS ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/dns_datagram)
