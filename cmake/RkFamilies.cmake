# Which families the public headers declare, for the programs built on them
# (rkctl, the example daemons and their tests): RK_HAVE_<FAMILY> is ON when
# the header declares the function named below. A header that appears or
# changes makes CMake look again.
function(_rk_header_declares var header symbol)
  set(path ${PROJECT_SOURCE_DIR}/include/routerkit/${header})
  set(found OFF)
  if(EXISTS ${path})
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    file(READ ${path} text)
    if(text MATCHES "[^A-Za-z0-9_]${symbol}[ \t]*\\(")
      set(found ON)
    endif()
  endif()
  set(${var} ${found} PARENT_SCOPE)
endfunction()

file(GLOB _rk_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/routerkit/*.h)
_rk_header_declares(RK_HAVE_PING async_ping.h asyncPing4)
_rk_header_declares(RK_HAVE_DELAY network_helper.h getInternetDelay)
_rk_header_declares(RK_HAVE_BRIDGE network_helper.h networkHelper_getBridgeAddr)
_rk_header_declares(RK_HAVE_IDENTITY config.h config_getDeviceType)
_rk_header_declares(RK_HAVE_WEEK uci_access.h getWeekFlag)
_rk_header_declares(RK_HAVE_CPU log.h getCPUUsageValue)
set(RK_HAVE_ALL OFF)
if(RK_HAVE_PING AND RK_HAVE_DELAY AND RK_HAVE_BRIDGE AND RK_HAVE_IDENTITY AND RK_HAVE_CPU)
  set(RK_HAVE_ALL ON)
endif()
