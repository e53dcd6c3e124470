SUMMARY = "D-Bus clients and threading tools for BMC services"
DESCRIPTION = "A C++20 library with which the services of a baseboard management controller talk \
to one another over the system bus, and the generator of client classes for interfaces of one's own."
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Where your copy is, and the commit of the release that you take.
SRC_URI = "git://git.example.com/libbmcbus.git;protocol=https;branch=main"
SRCREV = "0000000000000000000000000000000000000000"
PV = "0.2.0+git"
# From 5.3 on this is what BitBake does by itself, and the line must go.
S = "${WORKDIR}/git"

inherit meson pkgconfig python3native

# The generator runs while the library is built, on the build machine.
DEPENDS = "python3-jinja2-native python3-pyyaml-native"
# Of CZMQ only the headers: it comes into an image with the programs that have a zloop.
DEPENDS:append:class-target = " boost czmq systemd"

EXTRA_OEMESON:class-target = "-Dwerror=false -Dtests=disabled -Dexamples=disabled"
# bmcbus-codegen alone, for recipes with interfaces of their own: DEPENDS += "bmcbus bmcbus-native".
EXTRA_OEMESON:class-native = "-Donly_codegen=true"
EXTRA_OEMESON:class-nativesdk = "-Donly_codegen=true"
BBCLASSEXTEND = "native nativesdk"

# Without one of these, or dlog, the stand-in is installed, which is for trials.
PACKAGECONFIG ??= "sdbusplus sdeventplus"
PACKAGECONFIG:class-native = ""
PACKAGECONFIG:class-nativesdk = ""
PACKAGECONFIG[sdbusplus] = "-Dsdbusplus=system,-Dsdbusplus=builtin,sdbusplus"
PACKAGECONFIG[sdeventplus] = "-Dsdeventplus=system,-Dsdeventplus=builtin,sdeventplus stdplus function2"
PACKAGECONFIG[dlog] = "-Ddlog=system,-Ddlog=builtin,dlog"
PACKAGECONFIG[simulator] = "-Dsimulator=enabled,-Dsimulator=disabled,cli11 pugixml"

do_install:append:class-native() {
    # The interpreter with Jinja2 is the one of the sysroot.
    sed -i '1s|.*|#!/usr/bin/env nativepython3|' ${D}${bindir}/bmcbus-codegen
}

# The generator, its templates and the kit are for development.
PACKAGE_BEFORE_PN = "${PN}-simulator"
# Its unit is below the prefix, which is not systemd_system_unitdir where /lib is a folder of its own.
FILES:${PN}-simulator = "${bindir}/bmcbus-simulator ${prefix}/lib/systemd/system"
FILES:${PN}-dev += "${bindir}/bmcbus-codegen ${datadir}/bmcbus ${datadir}/dbus-1/interfaces \
                    ${libdir}/bmcbus ${libdir}/cmake"
RDEPENDS:${PN}-dev += "python3-core python3-jinja2 python3-pyyaml"
