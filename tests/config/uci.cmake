# UCI accessors: on an open package and one-shot by package name. Both use
# /etc/config and /tmp/.uci, so they run in the private namespace.
rk_add_gtest(uci_access_test SOURCES uci_access_test.cc LIBS routerkit_obj NAMESPACE)
rk_add_gtest(uci_oneshot_test SOURCES uci_oneshot_test.cc LIBS routerkit_obj NAMESPACE)
# Device identity from the firmware's files and UCI, and weekday masks.
rk_add_gtest(identity_week_test SOURCES identity_week_test.cc LIBS routerkit_obj NAMESPACE)
