# What the feed's Makefile uses of OpenWrt's rules.mk, in the form that it has there.
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
CP := cp -fpR
INCLUDE_DIR := $(TOPDIR)/include
