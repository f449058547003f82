# Unit tests of the DNS client's internals (codec, cache, answer processing).
# They link the object library, so the helpers in src/dns/*.h are reachable.
# Answer processing logs through syslog: the namespace gives the program its
# own /dev/log.
rk_add_gtest(dns_unit
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/unit_codec.cc
          ${CMAKE_CURRENT_LIST_DIR}/unit_cache.cc
          ${CMAKE_CURRENT_LIST_DIR}/unit_answers.cc
  LIBS routerkit_obj
  NAMESPACE)
