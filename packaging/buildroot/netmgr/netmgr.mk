################################################################################
#
# netmgr
#
################################################################################

NETMGR_VERSION = 1.0.0
NETMGR_SITE = https://git.example.invalid/netmgr.git
NETMGR_SITE_METHOD = git
NETMGR_LICENSE = MIT
NETMGR_LICENSE_FILES = LICENSE
NETMGR_INSTALL_STAGING = YES
NETMGR_DEPENDENCIES = host-pkgconf libglib2 dbus jsoncpp

# Tests need private buses and network namespaces on the build host; the
# simulator and the benchmarks are development tools.
NETMGR_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DNETMGR_BUILD_SIM=OFF \
	-DNETMGR_BENCH=OFF

ifeq ($(BR2_PACKAGE_NETMGR_NETMGRCTL),y)
NETMGR_CONF_OPTS += -DNETMGR_BUILD_NETMGRCTL=ON
else
NETMGR_CONF_OPTS += -DNETMGR_BUILD_NETMGRCTL=OFF
endif

$(eval $(cmake-package))
