# Stand-in for the OpenWrt SDK's rules.mk: what the routerkit recipe uses of it.
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
CP:=cp -fpR
CXX_DEPENDS:=+libstdcpp
