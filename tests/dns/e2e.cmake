# End-to-end tests of the DNS client: real sockets on the test's own uloop,
# the tests' responder on port 53, dnsmasq as a real server, syslog caught
# at /dev/log. Every case runs in private namespaces (port 53, /dev/log).
include(${CMAKE_CURRENT_LIST_DIR}/support/support.cmake)

rk_add_gtest(dns_e2e
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/e2e_wire_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/e2e_answers_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/e2e_cache_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/e2e_sockets_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/e2e_servers_test.cc
    ${CMAKE_CURRENT_LIST_DIR}/e2e_dnsmasq_test.cc
  LIBS routerkit_obj rk_dnssupport
  NAMESPACE)
# A fresh process whose first two contexts the identifier test looks at.
add_executable(dns_id_probe ${CMAKE_CURRENT_LIST_DIR}/support/id_probe_main.cc)
target_link_libraries(dns_id_probe PRIVATE routerkit_obj)
add_dependencies(dns_e2e dns_id_probe)
target_compile_definitions(dns_e2e PRIVATE RK_DNS_ID_PROBE="$<TARGET_FILE:dns_id_probe>")

# The fuzz corpus replayed through the fuzzer's own entry point, in every
# build (the libFuzzer target itself needs clang and ROUTERKIT_BUILD_FUZZ).
set(RK_DNSFUZZ_DIR ${PROJECT_SOURCE_DIR}/tests/fuzz)
add_executable(dns_fuzz_replay
  ${RK_DNSFUZZ_DIR}/dns_datagram_entry.cc
  ${RK_DNSFUZZ_DIR}/replay_main.cc)
target_link_libraries(dns_fuzz_replay PRIVATE routerkit_obj rk_dnssupport)
add_test(NAME dns_fuzz_replay
  COMMAND ${RK_NS_RUN} --keep ${PROJECT_BINARY_DIR} --keep ${PROJECT_SOURCE_DIR}
          $<TARGET_FILE:dns_fuzz_replay> ${RK_DNSFUZZ_DIR}/corpus/dns)
set_tests_properties(dns_fuzz_replay PROPERTIES LABELS namespace TIMEOUT 300)

# Writes the seed corpus once (the files are checked in); not built by default.
add_executable(dns_make_corpus EXCLUDE_FROM_ALL ${RK_DNSFUZZ_DIR}/make_corpus.cc)
target_link_libraries(dns_make_corpus PRIVATE rk_dnssupport)
