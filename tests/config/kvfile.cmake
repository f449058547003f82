# Values from key/value files and the factory tool. Every case runs alone in
# private namespaces: some install /usr/bin/factory or bind /dev/log, and the
# error messages set up the process's logging.
rk_add_gtest(rk_config_kvfile_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/kvfile_test.cc
  LIBS routerkit_obj)
