# A starting point for a Yocto recipe. The build of vigmond does not parse it.
SUMMARY = "Health monitoring of a charging station's controller"
LICENSE = "CLOSED"
SRC_URI = "git://git.example.invalid/vigmond.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"
DEPENDS = "bzip2 dbus systemd"
inherit cmake pkgconfig systemd useradd
EXTRA_OECMAKE = "-DVIGMOND_TESTS=OFF -DVIGMOND_STATION=OFF -DVIGMOND_GIT_ID=${SRCREV} \
    -DVIGMOND_UNIT_DIR=${systemd_system_unitdir}"
SYSTEMD_SERVICE:${PN} = "vigmond.service"
USERADD_PACKAGES = "${PN}"
USERADD_PARAM:${PN} = "--system --user-group --no-create-home --home-dir /var/lib/evse/vigmond --shell /sbin/nologin vigmond"
FILES:${PN} += "${libdir}/sysusers.d ${datadir}/dbus-1 ${datadir}/bash-completion ${datadir}/zsh"
