# The ping client on raw sockets with the kernel's own replies: loopback, a
# peer namespace behind a veth pair, and an address that never answers.
rk_add_gtest(net_ping SOURCES ${CMAKE_CURRENT_LIST_DIR}/ping_test.cc LIBS routerkit_obj NAMESPACE)
