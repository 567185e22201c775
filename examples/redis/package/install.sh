#!/bin/sh
# Makes the data folder and the configuration of this installation, and tries the server out: a
# binary that does not run on this machine is refused before it replaces one that does.
set -eu
data=/usr/local/daemon/redis
mkdir -p "$data"
cat >redis.conf <<CONF
bind 127.0.0.1
port 17379
dir $data
dbfilename dump.rdb
save 60 1
daemonize no
CONF
bin/redis-server --version
