# A starting point for a Buildroot package. The build of vigmond does not parse it. Its Config.in:
#   config BR2_PACKAGE_VIGMOND
#       bool "vigmond"
#       depends on BR2_PACKAGE_SYSTEMD
#       select BR2_PACKAGE_BZIP2
#       select BR2_PACKAGE_DBUS
VIGMOND_SITE = /where/the/sources/are
VIGMOND_SITE_METHOD = local
VIGMOND_DEPENDENCIES = host-pkgconf bzip2 dbus systemd
VIGMOND_CONF_OPTS = -DVIGMOND_TESTS=OFF -DVIGMOND_STATION=OFF
define VIGMOND_USERS
	vigmond -1 vigmond -1 * /var/lib/evse/vigmond - - charging station monitoring
endef
$(eval $(cmake-package))
