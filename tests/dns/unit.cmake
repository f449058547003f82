# Unit tests of the DNS client's internals (codec, cache, answer processing).
# They link the object library, so the helpers in src/dns/*.h are reachable.
rk_add_gtest(dns_unit
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/unit_codec.cc
          ${CMAKE_CURRENT_LIST_DIR}/unit_cache.cc
  LIBS routerkit_obj)

# Answer processing logs through syslog: the namespace gives the program its
# own /dev/log (and a throw-away /tmp for the log directory).
rk_add_gtest(dns_unit_answers
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/unit_answers.cc
  LIBS routerkit_obj
  NAMESPACE)
