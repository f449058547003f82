# Logging, the tick and the executable's own name. Logging keeps
# process-wide state, so every case runs alone in private namespaces.
rk_add_gtest(rk_diag_log_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_test.cc
  LIBS routerkit_obj)
rk_add_gtest(rk_diag_clock_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/clock_test.cc
  LIBS routerkit_obj)
rk_add_gtest(rk_diag_logfile_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_file_test.cc
  LIBS routerkit_obj)
