################################################################################
#
# qor
#
################################################################################

QOR_VERSION = 1.0.0
# A source archive, in the folder of the external tree.
QOR_SITE = file://$(BR2_EXTERNAL_QOR_PATH)
QOR_SOURCE = qor-$(QOR_VERSION).tar.gz
# Until qor.hash has the archive's line.
BR_NO_CHECK_HASH_FOR += $(QOR_SOURCE)

# The owner has chosen no licence: nobody may pass this on. Once there is one: its SPDX name here, its
# file in QOR_LICENSE_FILES, and QOR_REDISTRIBUTE goes.
QOR_LICENSE = none chosen
QOR_REDISTRIBUTE = NO

QOR_INSTALL_STAGING = YES
QOR_DEPENDENCIES = host-pkgconf boost libglib2
QOR_CONF_OPTS = -DQOR_CCACHE=OFF -DQOR_INSTALL_RPATH=OFF

ifeq ($(BR2_PACKAGE_QOR_TOOLS),y)
QOR_DEPENDENCIES += cli11 expat json-for-modern-cpp
QOR_CONF_OPTS += -DQOR_BUILD_TOOLS=ON -DQOR_SYSTEMD=ON -DQOR_SERVICE_USER=qord

# The second line is a group alone, of those who may change the policy.
define QOR_USERS
	qord -1 qord -1 * /var/lib/qor - - Platform monitoring service
	- - qor -1 - - - - Administrators of the policy
endef

# The bus starts the service, so that nothing has to at boot. The unit comes with what CMake installs.
define QOR_INSTALL_INIT_SYSTEMD
	mkdir -p $(TARGET_DIR)/usr/lib/systemd/system-preset
	echo "disable qord.service" > $(TARGET_DIR)/usr/lib/systemd/system-preset/50-qor.preset
endef
else
QOR_CONF_OPTS += -DQOR_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
