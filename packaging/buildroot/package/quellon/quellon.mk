################################################################################
#
# quellon
#
################################################################################

QUELLON_VERSION = 2.3.0
# Where `scripts/package --source` leaves the archive of the sources.
QUELLON_SITE = file://$(realpath $(BR2_EXTERNAL_QUELLON_PATH)/../..)/build/packages
BR_NO_CHECK_HASH_FOR += $(QUELLON_SOURCE)
# A licence has not been chosen yet: all rights are reserved.
QUELLON_LICENSE = LicenseRef-Quellon
QUELLON_LICENSE_FILES = LICENSE
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
