# Stand-in for the OpenWrt SDK's package.mk: BuildPackage is left undefined,
# so the recipe's packages are only read; check.mk runs their rules.
