#!/bin/sh
# Runs in the staging folder before anything is committed; a failure here rolls the install back.
# The database is made by the first run, and stays over updates.
set -eu
mkdir -p /usr/local/daemon/portwatch/portwatch
