# shellcheck shell=dash
# A scenario does not come to its end.
sleep 100000
