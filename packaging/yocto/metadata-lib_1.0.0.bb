SUMMARY = "Metadata ingest for video encoders"
DESCRIPTION = "Receives KLV (MISB ST 0601) and Cursor-on-Target, converts, rewrites and relays it, and hands it to a video \
encoder that loads the library."
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# The repository is a layer's own business: a mirror, or EXTERNALSRC for a working tree.
METADATA_LIB_URI ?= "git:///srv/git/metadata_lib;protocol=file;branch=main"
SRC_URI = "${METADATA_LIB_URI}"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig

EXTRA_OECMAKE = "-DMETADATA_BUILD_TESTS=OFF -DMETADATA_SMALL=ON"

# The library alone by default: an encoder has host services of its own.
PACKAGECONFIG ??= ""
PACKAGECONFIG[host] = "-DMETADATA_BUILD_HOST=ON,-DMETADATA_BUILD_HOST=OFF,spdlog libinih cli11 nlohmann-json ffmpeg \
libpcap pugixml openssl cpp-httplib zlib"

PACKAGE_BEFORE_PN = "${PN}-tools"
FILES:${PN}-tools = "${bindir} ${prefix}/lib/systemd ${datadir}/bash-completion ${datadir}/zsh"
FILES:${PN}-dev += "${libdir}/cmake"
FILES:${PN}-doc += "${docdir}"
RDEPENDS:${PN}-tools = "${PN}"
