# shellcheck shell=dash
# A scenario that never ends.
sleep 100000
