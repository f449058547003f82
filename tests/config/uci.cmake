# UCI accessors: on an open package, one-shot by package name, and the calls
# both make into libuci. All of them use /etc/config and /tmp/.uci, so they
# run in the private namespace.
rk_add_gtest(uci_access_test SOURCES uci_access_test.cc LIBS routerkit_obj NAMESPACE)
rk_add_gtest(uci_oneshot_test SOURCES uci_oneshot_test.cc LIBS routerkit_obj NAMESPACE)

# Every libuci entry point the accessors use goes through a recorder in the
# test first (-Wl,--wrap works the same with the stand-in and the real
# library).
rk_add_gtest(uci_calls_test SOURCES uci_calls_test.cc LIBS routerkit_obj NAMESPACE)
set(_rk_uci_wrapped uci_alloc_context uci_free_context uci_load uci_unload uci_commit
    uci_set uci_add_list uci_del_list uci_delete uci_revert uci_lookup_next)
foreach(_fn ${_rk_uci_wrapped})
  target_link_options(uci_calls_test PRIVATE "LINKER:--wrap=${_fn}")
endforeach()
