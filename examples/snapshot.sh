#!/bin/sh
# Saves the registry in a new file and keeps the newest COUNT files: snapshot.sh DIRECTORY [COUNT]
set -eu

directory=$1
count=${2-7}

mkdir -p "$directory"
ledgerctl dump "$directory/settings-$(date -u +%Y%m%dT%H%M%SZ).json"

# The order of the names is that of the dates.
set -- "$directory"/settings-*.json
while [ $# -gt "$count" ]; do
  rm "$1"
  shift
done
