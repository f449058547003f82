# Read after the recipe (make -f Makefile -f check.mk): prints its variables
# and runs its Build/Prepare and install rules. PKG_BUILD_DIR, PKG_INSTALL_DIR
# and OUT (where the packages and the staging directory go) come from the
# command line.
$(eval $(Package/librouterkit))
LIB_DEPENDS:=$(DEPENDS)
LIB_ABI:=$(ABI_VERSION)
$(eval $(Package/rkctl))

print-%: ; @echo '$($*)'
prepare: ; $(Build/Prepare)
install:
	$(call Package/librouterkit/install,$(OUT)/librouterkit)
	$(call Package/rkctl/install,$(OUT)/rkctl)
	$(call Build/InstallDev,$(OUT)/staging)
