#!/bin/sh
# Runs in the installed folder before it is removed.
set -eu
rm -rf /usr/local/daemon/diskwatch
