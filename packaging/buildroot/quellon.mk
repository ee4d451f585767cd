################################################################################
#
# quellon
#
################################################################################

# Not built by those who wrote it.
QUELLON_VERSION = 2.1.0
# Where your archive of the sources is; this repository has no public address.
QUELLON_SITE = https://download.example.org/quellon
QUELLON_SOURCE = quellon-$(QUELLON_VERSION).tar.gz
# A license has not been chosen yet.
QUELLON_LICENSE = PROPRIETARY
QUELLON_REDISTRIBUTE = NO
QUELLON_INSTALL_STAGING = YES
QUELLON_CONF_OPTS = -DQUELLON_BUILD_TESTS=OFF

# CMake would put all components on the target otherwise, the headers too.
define QUELLON_INSTALL_TARGET_CMDS
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(QUELLON_BUILDDIR) --component runtime
	$(QUELLON_INSTALL_RECORDER)
	$(QUELLON_INSTALL_TOOLS)
endef

ifeq ($(BR2_PACKAGE_QUELLON_RECORDER),y)
define QUELLON_INSTALL_RECORDER
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(QUELLON_BUILDDIR) --component recorder
endef
else
QUELLON_CONF_OPTS += -DQUELLON_BUILD_EXAMPLES=OFF
endif

ifeq ($(BR2_PACKAGE_QUELLON_TOOLS),y)
define QUELLON_INSTALL_TOOLS
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(QUELLON_BUILDDIR) --component tools
endef
else
QUELLON_CONF_OPTS += -DQUELLON_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
