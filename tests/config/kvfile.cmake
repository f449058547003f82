# Values from key/value files and the factory tool. Every case runs alone in
# private namespaces: some install /usr/bin/factory or bind /dev/log, and the
# error messages set up the process's logging.
rk_add_gtest(rk_config_kvfile_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/kvfile_test.cc
  LIBS routerkit_obj)
# The syslog receiver and the other helpers are shared with the logging tests.
target_include_directories(rk_config_kvfile_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/diag)
if(ROUTERKIT_COVERAGE)
  target_compile_definitions(rk_config_kvfile_test PRIVATE RK_GCOV_DUMP)
endif()
