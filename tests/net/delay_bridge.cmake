# The delay record at /var/run/internet.state and bridges made with `ip link`,
# both inside private namespaces.
rk_add_gtest(rk_net_delay_bridge_test NAMESPACE
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/delay_bridge_test.cc
  LIBS routerkit_obj)
