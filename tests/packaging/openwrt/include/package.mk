# Stands for OpenWrt's package.mk: BuildPackage makes a target that runs the package's install steps, in
# PKG_STAGING/NAME, and one that prints what is declared. PKG_INSTALL_DIR is what was built.
define BuildPackage
  $(eval $(Package/$(1)))
  install-$(1):
	$$(call Package/$(1)/install,$(PKG_STAGING)/$(1))
  describe-$(1):
	@printf '%s\n' 'package=$(1) version=$(PKG_VERSION) licence=$(PKG_LICENSE) title=$(TITLE) depends=$(DEPENDS) abi=$(ABI_VERSION)'
endef

install-dev:
	$(call Build/InstallDev,$(PKG_STAGING)/dev)
