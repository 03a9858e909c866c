SUMMARY = "Location daemon for the qx7710 GNSS chip"
DESCRIPTION = "Owns a GNSS chip: powers it, reads it over SPI, tracks the last position, fetches predicted orbits, writes firmware."
SECTION = "network"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=20b7f76dda12301e5f94b85760b94f81"

# The recipe builds the tree that it stands in.
inherit externalsrc
EXTERNALSRC = "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"

inherit cmake pkgconfig systemd useradd features_check

# Threads are cancelled, which unwinds their stacks with glibc only.
COMPATIBLE_HOST:libc-musl = "null"
REQUIRED_DISTRO_FEATURES = "systemd"

DEPENDS = "curl mbedtls cli11 nlohmann-json"

# The screen of tavorctl's monitor, the relay for many clients, its second program with an output to MQTT, and the simulated board for
# developers' images.
PACKAGECONFIG ??= "ncurses"
PACKAGECONFIG[ncurses] = "-DTAVOR_NCURSES=ON,-DTAVOR_NCURSES=OFF,ncurses"
PACKAGECONFIG[relay] = "-DTAVOR_BUILD_RELAY=ON,-DTAVOR_BUILD_RELAY=OFF,libevent"
PACKAGECONFIG[mqtt] = "-DTAVOR_RELAY_MQTT=ON,-DTAVOR_RELAY_MQTT=OFF,mosquitto openssl"
PACKAGECONFIG[board] = "-DTAVOR_BUILD_BOARD=ON,-DTAVOR_BUILD_BOARD=OFF,libmicrohttpd"

# The host name of the assistance server that devices ask by default; tavor.conf may name another.
TAVOR_XOD_HOST ?= "assist.tavor.example"

EXTRA_OECMAKE = " \
    -DTAVOR_BUILD_TESTS=OFF \
    -DTAVOR_BUILD_BENCH=OFF \
    -DTAVOR_XOD_HOST=${TAVOR_XOD_HOST} \
"

do_install:append() {
    install -D -m 0644 ${S}/packaging/tavor.conf ${D}${sysconfdir}/default/tavor/tavor.conf
    install -m 0644 ${S}/packaging/tavor.env ${D}${sysconfdir}/default/tavor/service.env
    # CMake puts the unit and its journal's limits below the prefix.
    if [ "${systemd_unitdir}" != "${nonarch_libdir}/systemd" ]; then
        install -d ${D}${systemd_unitdir}
        mv ${D}${nonarch_libdir}/systemd/* ${D}${systemd_unitdir}/
        rmdir ${D}${nonarch_libdir}/systemd
    fi
}

RELAY_PACKAGE = "${@bb.utils.contains('PACKAGECONFIG', 'relay', '${PN}-relay', '', d)}"

SYSTEMD_PACKAGES = "${PN} ${RELAY_PACKAGE}"
SYSTEMD_SERVICE:${PN} = "tavor.service"
SYSTEMD_SERVICE:${PN}-relay = "tavor-relay.socket tavor-relay.service"

USERADD_PACKAGES = "${PN} ${RELAY_PACKAGE}"
USERADD_PARAM:${PN} = "--system --user-group --no-create-home --home-dir / --shell /sbin/nologin tavor"
USERADD_PARAM:${PN}-relay = "--system --user-group --no-create-home --home-dir / --shell /sbin/nologin tavor-relay"
GROUPADD_PARAM:${PN}-relay = "--system tavor-admin"
GROUPMEMS_PARAM:${PN}-relay = "--add tavor-relay --group tavor"

PACKAGES =+ "${PN}-client ${PN}-relay ${PN}-relay-mqtt ${PN}-board"

FILES:${PN}-client = " \
    ${bindir}/tavorctl \
    ${datadir}/bash-completion/completions/tavorctl \
    ${datadir}/zsh/site-functions/_tavorctl \
"
FILES:${PN}-relay = " \
    ${sbindir}/tavor-relay \
    ${systemd_unitdir}/system/tavor-relay.* \
    ${nonarch_libdir}/sysusers.d/tavor-relay.conf \
    ${datadir}/bash-completion/completions/tavor-relay \
    ${datadir}/zsh/site-functions/_tavor-relay \
"
FILES:${PN}-relay-mqtt = "${libexecdir}/tavor/tavor-relay-mqtt"
FILES:${PN}-board = " \
    ${bindir}/tavor-board \
    ${libdir}/tavor \
    ${datadir}/bash-completion/completions/tavor-board \
    ${datadir}/zsh/site-functions/_tavor-board \
"
FILES:${PN} += " \
    ${systemd_unitdir} \
    ${libexecdir}/tavor \
    ${nonarch_libdir}/sysusers.d \
    ${nonarch_libdir}/tmpfiles.d \
"
FILES:${PN}-dev += "${datadir}/cmake ${datadir}/pkgconfig"

CONFFILES:${PN} = "${sysconfdir}/default/tavor/tavor.conf ${sysconfdir}/default/tavor/service.env"

# Loaded when the first assistance download is asked for; the unit stops positioning through the client.
RDEPENDS:${PN} = "libcurl ${PN}-client"
RDEPENDS:${PN}-relay = "${PN}"
RDEPENDS:${PN}-relay-mqtt = "${PN}-relay (= ${EXTENDPKGV})"
INSANE_SKIP:${PN}-board = "dev-so"
