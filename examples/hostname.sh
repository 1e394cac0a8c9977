#!/bin/sh
# Sets the device's host name in the registry and reads it back: hostname.sh NAME
set -eu

status=0
message=$(ledgerctl set -- network hostname "${1-player-7}" 2>&1) || status=$?
case $status in
  0) ledgerctl get network hostname ;;
  5)
    echo "The registry is full; nothing has changed." >&2
    exit 1
    ;;
  *)
    echo "$message" >&2
    exit 1
    ;;
esac
