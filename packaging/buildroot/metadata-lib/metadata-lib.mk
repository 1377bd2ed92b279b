################################################################################
#
# metadata-lib
#
################################################################################

METADATA_LIB_VERSION = 1.0.0
# A working tree, or METADATA_LIB_OVERRIDE_SRCDIR in local.mk.
METADATA_LIB_SITE = $(BR2_EXTERNAL_METADATA_LIB_PATH)/../..
METADATA_LIB_SITE_METHOD = local
METADATA_LIB_LICENSE = Apache-2.0
METADATA_LIB_LICENSE_FILES = LICENSE NOTICE
METADATA_LIB_INSTALL_STAGING = YES
METADATA_LIB_SUPPORTS_IN_SOURCE_BUILD = NO
# The library alone: an encoder has host services of its own.
METADATA_LIB_CONF_OPTS = \
	-DMETADATA_BUILD_HOST=OFF \
	-DMETADATA_BUILD_TESTS=OFF \
	-DMETADATA_SMALL=ON

$(eval $(cmake-package))
