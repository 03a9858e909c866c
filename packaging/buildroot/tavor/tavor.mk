################################################################################
#
# tavor
#
################################################################################

TAVOR_VERSION = 1.3.0
# The tree that this package stands in.
TAVOR_SITE = $(BR2_EXTERNAL_TAVOR_PATH)/../..
TAVOR_SITE_METHOD = local
TAVOR_LICENSE = MIT
TAVOR_LICENSE_FILES = LICENSE
TAVOR_INSTALL_STAGING = YES
TAVOR_DEPENDENCIES = cli11 json-for-modern-cpp libcurl mbedtls

TAVOR_CONF_OPTS = \
	-DTAVOR_BUILD_TESTS=OFF \
	-DTAVOR_BUILD_BENCH=OFF \
	-DTAVOR_XOD_HOST=$(call qstrip,$(BR2_PACKAGE_TAVOR_XOD_HOST))

ifeq ($(BR2_PACKAGE_TAVOR_RELAY),y)
TAVOR_DEPENDENCIES += libevent
TAVOR_CONF_OPTS += -DTAVOR_BUILD_RELAY=ON
# A group of its own for those who may do through it what disturbs others.
define TAVOR_RELAY_USERS
	tavor-relay -1 tavor-relay -1 * - - tavor location relay
	- -1 tavor-admin -1 - - - - -
endef
else
TAVOR_CONF_OPTS += -DTAVOR_BUILD_RELAY=OFF
endif

ifeq ($(BR2_PACKAGE_TAVOR_RELAY_MQTT),y)
TAVOR_DEPENDENCIES += mosquitto openssl
TAVOR_CONF_OPTS += -DTAVOR_RELAY_MQTT=ON
else
TAVOR_CONF_OPTS += -DTAVOR_RELAY_MQTT=OFF
endif

ifeq ($(BR2_PACKAGE_TAVOR_BOARD),y)
TAVOR_DEPENDENCIES += libmicrohttpd
TAVOR_CONF_OPTS += -DTAVOR_BUILD_BOARD=ON
else
TAVOR_CONF_OPTS += -DTAVOR_BUILD_BOARD=OFF
endif

# The screen of tavorctl's monitor.
ifeq ($(BR2_PACKAGE_NCURSES_WCHAR),y)
TAVOR_DEPENDENCIES += ncurses
TAVOR_CONF_OPTS += -DTAVOR_NCURSES=ON
else
TAVOR_CONF_OPTS += -DTAVOR_NCURSES=OFF
endif

define TAVOR_INSTALL_CONFIGURATION
	$(INSTALL) -D -m 0644 $(@D)/packaging/tavor.conf \
		$(TARGET_DIR)/etc/default/tavor/tavor.conf
	$(INSTALL) -d -m 0750 $(TARGET_DIR)/etc/default/tavor/xod
endef
TAVOR_POST_INSTALL_TARGET_HOOKS += TAVOR_INSTALL_CONFIGURATION

# The unit and what stands beside it are CMake's; others than systemd have no use for them, except for what cleans up after the daemon.
ifneq ($(BR2_INIT_SYSTEMD),y)
define TAVOR_REMOVE_SYSTEMD_FILES
	cd $(TARGET_DIR)/usr && rm -rf lib/systemd/system/tavor* lib/systemd/journald@tavor.conf.d \
		lib/sysusers.d/tavor* lib/tmpfiles.d/tavor.conf
endef
TAVOR_POST_INSTALL_TARGET_HOOKS += TAVOR_REMOVE_SYSTEMD_FILES
endif

define TAVOR_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/tavor.env \
		$(TARGET_DIR)/etc/default/tavor/service.env
endef

define TAVOR_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(TAVOR_PKGDIR)/S50tavor \
		$(TARGET_DIR)/etc/init.d/S50tavor
endef

# Members of the group may drive the daemon.
define TAVOR_USERS
	tavor -1 tavor -1 * - - - location daemon
$(TAVOR_RELAY_USERS)
endef

# Set-group-id: the socket has the group of its directory.
define TAVOR_PERMISSIONS
	/etc/default/tavor d 2750 root tavor - - - - -
	/etc/default/tavor/xod d 2750 root tavor - - - - -
endef

$(eval $(cmake-package))
