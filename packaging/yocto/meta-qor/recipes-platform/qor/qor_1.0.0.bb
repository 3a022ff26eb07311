SUMMARY = "D-Bus channel to the platform monitoring service"
DESCRIPTION = "The library through which applications hand the platform monitoring service a new \
policy and hear of its events, the service, and its command line."

# The owner has chosen no licence: nobody may pass these packages on. Once there is one: its SPDX name
# here, and LIC_FILES_CHKSUM with its file.
LICENSE = "CLOSED"

# A source archive in the folder files/ beside this recipe, or whatever a configuration names.
QOR_SRC_URI ?= "file://${BP}.tar.gz"
SRC_URI = "${QOR_SRC_URI}"

DEPENDS = "boost glib-2.0"

inherit cmake pkgconfig systemd useradd

# Without the tools, the libraries alone. The tests are built and not installed.
PACKAGECONFIG ??= "tools"
PACKAGECONFIG[tools] = "-DQOR_BUILD_TOOLS=ON -DQOR_SYSTEMD=ON,-DQOR_BUILD_TOOLS=OFF,cli11 expat nlohmann-json"
PACKAGECONFIG[tests] = "-DBUILD_TESTING=ON,-DBUILD_TESTING=OFF,dbus-native googletest"

# Run paths, and a compiler's cache, are bitbake's affair.
EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQOR_CCACHE=OFF \
    -DQOR_INSTALL_RPATH=OFF \
    -DQOR_SERVICE_USER=qord \
"

# What CMake installs below lib/ of the prefix goes where this distribution has its units.
do_install:append() {
    unit=${D}${prefix}/lib/systemd/system/qord.service
    if [ -e $unit ] && [ "${systemd_system_unitdir}" != "${prefix}/lib/systemd/system" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv $unit ${D}${systemd_system_unitdir}
        rmdir ${D}${prefix}/lib/systemd/system ${D}${prefix}/lib/systemd
    fi
}

PACKAGE_BEFORE_PN = "${PN}-completion ${PN}-tools"
FILES:${PN}-completion = " \
    ${datadir}/bash-completion \
    ${datadir}/fish \
    ${datadir}/zsh \
"
FILES:${PN}-tools = " \
    ${bindir}/qorctl \
    ${bindir}/qord \
    ${datadir}/dbus-1/system-services \
    ${datadir}/dbus-1/system.d \
    ${datadir}/qor \
    ${prefix}/lib/sysusers.d \
    ${systemd_system_unitdir}/qord.service \
"
FILES:${PN}-dev += "${datadir}/dbus-1/interfaces"
RRECOMMENDS:${PN}-tools = "dbus"

USERADD_PACKAGES = "${PN}-tools"
GROUPADD_PARAM:${PN}-tools = "--system qor"
USERADD_PARAM:${PN}-tools = "--system --user-group --home-dir ${localstatedir}/lib/qor --no-create-home \
    --shell /sbin/nologin qord"

# The bus starts the service: nothing is enabled.
SYSTEMD_PACKAGES = "${PN}-tools"
SYSTEMD_SERVICE:${PN}-tools = "${@bb.utils.contains('PACKAGECONFIG', 'tools', 'qord.service', '', d)}"
SYSTEMD_AUTO_ENABLE:${PN}-tools = "disable"
