# Stands for OpenWrt's cmake.mk.
cmake-options:
	@printf '%s\n' $(foreach option,$(CMAKE_OPTIONS),'$(option)')
