#!/bin/sh
# exec: the supervisor must signal and reap the server itself, not a shell in front of it.
exec bin/redis-server "$PWD/redis.conf" "$@"
