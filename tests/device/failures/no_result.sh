# shellcheck shell=dash
# The board is off before it has told how it went.
poweroff -f
