SUMMARY = "Network management for embedded Linux devices, a client of the ConnMan daemon"
DESCRIPTION = "libnetmgr switches Wi-Fi and Ethernet, scans and connects to Wi-Fi \
networks and sets IP configuration through ConnMan over D-Bus; netmgrctl is its \
command-line front end."
HOMEPAGE = "https://example.invalid/netmgr"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=fea49ea803fead7b71f495c682a5b39f"

SRC_URI = "git://git.example.invalid/netmgr.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
PV = "1.0.0+git${SRCPV}"
S = "${WORKDIR}/git"

DEPENDS = "glib-2.0 dbus jsoncpp"

inherit cmake pkgconfig

# Tests need private buses and network namespaces on the build host; the
# simulator and the benchmarks are development tools.
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DNETMGR_BUILD_SIM=OFF -DNETMGR_BENCH=OFF"

# The device's own settings-store client instead of the stand-in: set
# NETMGR_DEVICE_STORE = "1" in a bbappend and provide the recipe named in
# NETMGR_STORE_RECIPE (it must install zelstorageclient.h and
# libzelstorageclient.so into the sysroot).
NETMGR_DEVICE_STORE ?= "0"
NETMGR_STORE_RECIPE ?= "zelstorageclient"
EXTRA_OECMAKE:append = "${@' -DNETMGR_DEVICE_STORE=ON' if d.getVar('NETMGR_DEVICE_STORE') == '1' else ''}"
DEPENDS:append = "${@' ' + d.getVar('NETMGR_STORE_RECIPE') if d.getVar('NETMGR_DEVICE_STORE') == '1' else ''}"

PACKAGES =+ "netmgrctl"
FILES:netmgrctl = "${bindir}/netmgrctl"
FILES:${PN} += "${datadir}/dbus-1/system.d/netmgr.conf"
RDEPENDS:${PN} = "connman dbus"
