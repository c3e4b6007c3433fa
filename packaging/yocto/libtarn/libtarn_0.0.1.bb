# libtarn, the command tarn, and a part of its tests as ptest, on the recipes libubox and ubus of the
# layer meta-openwrt, or of any other.
SUMMARY = "Typed, asynchronous, thread-safe client of the ubus message bus for C++"
DESCRIPTION = "A C++17 library over libubus: typed calls, served objects, events and subscriptions, \
delivered to the event loop of the program."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=a820ab486d8fbeda0a57390515ff3e31"

DEPENDS = "libubox ubus"

# A release as a tar archive beside the recipe; for a checkout: inherit externalsrc, EXTERNALSRC = "...".
SRC_URI = "file://libtarn-${PV}.tar.gz \
           file://run-ptest \
           "
S = "${WORKDIR}/libtarn-${PV}"

inherit cmake pkgconfig ptest

PACKAGECONFIG ??= "tools ${@bb.utils.contains('PTEST_ENABLED', '1', 'tests', '', d)}"
PACKAGECONFIG[tools] = "-DTARN_TOOLS=ON,-DTARN_TOOLS=OFF,nlohmann-json"
# They need the tools. Programs of the device are not run while they are built, to list their cases.
PACKAGECONFIG[tests] = "-DTARN_TESTS=ON -DTARN_EXAMPLES=ON -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST,-DTARN_TESTS=OFF -DTARN_EXAMPLES=OFF,googletest"

EXTRA_OECMAKE = "-DTARN_BUS=system -DTARN_LOOPS= -DCMAKE_SKIP_RPATH=ON"

# Programs that need neither a bus nor the sources.
do_install_ptest() {
    install -d ${D}${PTEST_PATH}/tests
    for each in ${PTEST_PROGRAMS}; do
        install -m 0755 ${B}/tests/$each ${D}${PTEST_PATH}/tests/
    done
}
PTEST_PROGRAMS = "blob/test_blob_attr blob/test_blob_buf blob/test_blob_readers blob/test_blob_hostile \
    client/test_client_request_table error/test_error_error interface/test_interface_version \
    loops/test_loops_epoll utils/test_utils_link"

PACKAGE_BEFORE_PN = "${PN}-tools"
FILES:${PN} = "${libdir}/libtarn.so.*"
FILES:${PN}-tools = "${bindir}/tarn ${datadir}/bash-completion"
FILES:${PN}-dev += "${libdir}/cmake"
