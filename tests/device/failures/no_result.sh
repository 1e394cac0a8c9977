# shellcheck shell=dash
# The board powers off before it sends a result.
poweroff -f
