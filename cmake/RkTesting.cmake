find_package(GTest REQUIRED)
include(GoogleTest)

set(RK_NS_RUN ${PROJECT_SOURCE_DIR}/tests/support/rk-ns-run)

# rk_add_gtest(<name> SOURCES <files...> [LIBS <targets...>] [NAMESPACE] [TIMEOUT <s>])
#
# Builds a GoogleTest program and registers each of its tests with CTest.
# NAMESPACE runs every test case in a private mount and network namespace
# (tests/support/rk-ns-run): /etc, /usr/bin, /tmp and /run are throw-away
# there, so a test may put fixtures at the system's fixed paths, bring up
# interfaces and open raw sockets without touching the machine.
function(rk_add_gtest name)
  cmake_parse_arguments(T "NAMESPACE" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} rk_testsupport GTest::gtest_main GTest::gmock)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(props TIMEOUT ${T_TIMEOUT})
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    # qemu-user 7.2 runs threads and forked children of dynamically linked
    # programs badly (they crash at their first step); static ones are fine.
    target_link_options(${name} PRIVATE -static)
    list(GET CMAKE_CROSSCOMPILING_EMULATOR 0 _rk_emulator)
    list(APPEND props ENVIRONMENT RK_EMULATED=${_rk_emulator})
  endif()
  if(T_NAMESPACE)
    # In a cross build the namespace runner starts the target's emulator.
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR
      "${RK_NS_RUN};--keep;${PROJECT_BINARY_DIR};--keep;${PROJECT_SOURCE_DIR};${CMAKE_CROSSCOMPILING_EMULATOR}")
    list(APPEND props LABELS namespace)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       TEST_PREFIX "${name}."
                       PROPERTIES ${props})
endfunction()

# rk_add_fuzz_replay(<name> ENTRY <file> CORPUS <dir> [NAMESPACE])
#
# Replays a checked-in fuzz corpus through the fuzzer's own entry point as an
# ordinary test, in every build (the libFuzzer targets need clang and
# ROUTERKIT_BUILD_FUZZ; see tests/fuzz).
function(rk_add_fuzz_replay name)
  cmake_parse_arguments(F "NAMESPACE" "ENTRY;CORPUS" "" ${ARGN})
  add_executable(${name} ${F_ENTRY} ${PROJECT_SOURCE_DIR}/tests/fuzz/replay_main.cc)
  target_link_libraries(${name} PRIVATE routerkit_obj rk_testsupport)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    target_link_options(${name} PRIVATE -static)
  endif()
  set(cmd ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}> ${F_CORPUS})
  if(F_NAMESPACE)
    set(cmd ${RK_NS_RUN} --keep ${PROJECT_BINARY_DIR} --keep ${PROJECT_SOURCE_DIR} ${cmd})
  endif()
  add_test(NAME ${name} COMMAND ${cmd})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(F_NAMESPACE)
    set_tests_properties(${name} PROPERTIES LABELS namespace)
  endif()
endfunction()
