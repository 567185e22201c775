#!/bin/sh
# Runs in the installed folder before it is removed; the database goes with the package.
set -eu
rm -rf /usr/local/daemon/portwatch
