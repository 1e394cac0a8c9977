# shellcheck shell=dash disable=SC2119 source=tests/device/guest/library.sh
# Not a test: measures the cost of the daemon on this board.
. /scenario/library.sh

libraries_of() {
  LD_TRACE_LOADED_OBJECTS=1 /lib/ld-linux-armhf.so.3 "$1" | sed -n 's/.* => \([^ ]*\) .*/\1/p' | sort
}

nand
environment PW_FORMAT=1 PW_HWFLAGS=0x31
dbus-daemon --system

echo "size in bytes of the stripped executable and of each library that it adds to a system with libc and libdbus"
libraries_of /usr/bin/dbus-send >/tmp/present
{ echo /usr/sbin/ledgerd && libraries_of /usr/sbin/ledgerd | grep -vxFf /tmp/present; } | while read -r path; do
  printf '%8d %s\n' "$(wc -c <"$path")" "$path"
done

rounds=20
total=0
for _ in $(seq $rounds); do
  begin=$(uptime_centiseconds)
  ledgerd
  total=$((total + $(uptime_centiseconds) - begin))
  ledgerd -k
  until_true 10 process_is_gone "$(cat /run/ledgd.pid)"
done
echo "start until the command returns: $((total * 10 / rounds)) ms on average of $rounds"

ledgerd
daemon=$(cat /run/ledgd.pid)
call Read string:a string:b >/dev/null
# The root file system is in memory here, so the pages of files count as shared memory and not as files.
print_memory() {
  echo "$1:"
  sed -n '/^\(Rss\|Pss\|Pss_Anon\|Private_Dirty\|Anonymous\):/p' "/proc/$daemon/smaps_rollup"
}
print_memory "idle with an empty registry"
# A line of 32 bytes for each key.
keys=$(for number in $(seq 1000 1509); do printf '"key%s":"%023d",' "$number" 0; done)
call WriteJson "string:{\"s\":{${keys%,}}}" >/dev/null
echo "registry: $(wc -c </var/lib/plinthware/registry) of 16383 bytes"
print_memory "idle with a full registry"
sed -n '/^Threads/p' "/proc/$daemon/status"
