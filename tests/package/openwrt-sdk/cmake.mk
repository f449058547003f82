# Stand-in for the OpenWrt SDK's cmake.mk: check-openwrt.sh configures the
# project itself, with the recipe's CMAKE_OPTIONS.
