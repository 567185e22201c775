#!/bin/sh
# The server is stopped already and has saved; its data go with the package.
set -eu
rm -rf /usr/local/daemon/redis
