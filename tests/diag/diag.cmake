# Logging, the tick and the executable's own name.

# A program the tests copy to chosen paths, to see how it finds its own name.
# It is built from the logging sources alone, with no libubox or libuci to
# load, so it also runs inside a bare chroot.
add_executable(rk_diag_exe_probe ${CMAKE_CURRENT_LIST_DIR}/exe_probe.cc
               ${PROJECT_SOURCE_DIR}/src/diag/log.cc ${PROJECT_SOURCE_DIR}/src/diag/clock.cc)
target_include_directories(rk_diag_exe_probe PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)

# Each case runs alone in private namespaces: logging state is process-wide,
# and the cases write /etc, /tmp/log and /dev/log or change mounts.
rk_add_gtest(rk_diag_log_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_test.cc
  LIBS routerkit_obj)
rk_add_gtest(rk_diag_clock_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/clock_test.cc
  LIBS routerkit_obj)
foreach(t rk_diag_log_test rk_diag_clock_test)
  target_compile_definitions(${t} PRIVATE
    RK_EXE_PROBE="$<TARGET_FILE:rk_diag_exe_probe>"
    RK_BUILD_DIR="${PROJECT_BINARY_DIR}")
  add_dependencies(${t} rk_diag_exe_probe)
endforeach()

# The file family needs no logging state and no fixed path.
rk_add_gtest(rk_diag_logfile_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/log_file_test.cc
  LIBS routerkit_obj)

# Forked children end with _exit; in a coverage build they write their
# counters first.
