#!/bin/sh
# A supervisor that starts itself anew knows nothing of what it started before, and starts this
# package once more: the newcomer takes over from whoever still runs. This stands here, and not in
# the launch arguments, because each install forgets those.
exec "$(dirname "$0")/portwatch" --instance-policy kill "$@"
