# Commands and CPU usage: recording tools at /usr/sbin and a /proc/stat of
# the test's own are mounted in private namespaces.
rk_add_gtest(rk_diag_commands_cpu_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/commands_cpu_test.cc
  LIBS routerkit_obj)
