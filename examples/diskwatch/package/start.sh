#!/bin/sh
# A supervisor that starts itself anew knows nothing of what it started before, and starts this
# package once more: the newcomer takes over from whoever still runs.
exec "$(dirname "$0")/diskwatch" --instance-policy kill "$@"
