#!/bin/sh
# Runs in the staging folder before anything is committed; a failure here rolls the install back.
set -eu
data=/usr/local/daemon/diskwatch
mkdir -p "$data/diskwatch"
echo "$MIREL_PACKAGE_NAME $MIREL_PACKAGE_VERSION ($MIREL_PACKAGE_ARCH) -> $MIREL_INSTALL_PATH" \
    >>"$data/installs.log"
