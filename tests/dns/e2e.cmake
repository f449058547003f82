# End-to-end tests of the DNS client: real sockets on the test's own uloop,
# a responder of the test's own on port 53 and dnsmasq as a real server.
rk_add_gtest(dns_e2e
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/e2e_test.cc
  LIBS routerkit_obj
  NAMESPACE)

# The fuzz corpus replayed through the fuzzer's own entry point, in every
# build (the libFuzzer target itself needs clang and ROUTERKIT_BUILD_FUZZ).
set(RK_DNSFUZZ_DIR ${PROJECT_SOURCE_DIR}/tests/fuzz)
add_executable(dns_fuzz_replay ${RK_DNSFUZZ_DIR}/dns_datagram_entry.cc ${RK_DNSFUZZ_DIR}/replay_main.cc)
target_link_libraries(dns_fuzz_replay PRIVATE routerkit_obj rk_testsupport)
if(CMAKE_CROSSCOMPILING_EMULATOR)
  target_link_options(dns_fuzz_replay PRIVATE -static)
endif()
add_test(NAME dns_fuzz_replay
  COMMAND ${RK_NS_RUN} --keep ${PROJECT_BINARY_DIR} --keep ${PROJECT_SOURCE_DIR}
          ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:dns_fuzz_replay> ${RK_DNSFUZZ_DIR}/corpus/dns)
set_tests_properties(dns_fuzz_replay PROPERTIES LABELS namespace TIMEOUT 300)
