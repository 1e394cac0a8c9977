# shellcheck shell=dash disable=SC2119 source=tests/device/guest/library.sh
# The life of the daemon on a real system bus, as its clients and its operator see it.
. /scenario/library.sh

file=/var/lib/plinthware/registry

# as USER METHOD ARGUMENT...: calls a method as a user and prints the reply. If the bus refuses the call, prints only
# the name of the error, because its text contains numbers.
as() {
  local user=$1 method=$2
  shift 2
  su -s /bin/sh "$user" -c "dbus-send --system --print-reply --dest=com.tavimesh.Registry /com/tavimesh/Registry \
    com.tavimesh.Registry.$method $*" 2>&1 | sed -e '/^method return/d' -e 's/^   *//' -e 's/: Rejected send.*//'
}

environment_of_the_process() {
  tr '\000' '\n' <"/proc/$daemon/cmdline"
  cat /proc/"$daemon"/task/*/comm | sort
  for link in cwd fd/0 fd/1 fd/2; do
    echo "$link $(readlink "/proc/$daemon/$link")"
  done
}

nand
environment PW_FORMAT=1 PW_HWFLAGS=0x31
dbus-daemon --system

echo "# start"
start_daemon
environment_of_the_process

echo "# twelve methods"
call Write string:Network string:Hostname string:Player-7
call Write string:network string:mtu string:
call Read string:NETWORK string:HOSTNAME
call KeyExists string:network string:mtu
call SectionExists string:nowhere
call SectionList
call KeyList string:network
call ReadAllJson
call WriteJson 'string:{"clock":{"zone":"UTC"},"network":{"mtu":null}}'
call ReadAllJson
call DeleteKey string:network string:hostname
call DeleteSection string:clock
call KeyList string:network
call Flush
cat $file
echo
call DeleteAll
call SectionList

echo "# errors"
call Read "string:caf$(printf '\303\251')" string:x
call WriteJson 'string:[1]'
call WriteJson 'string:{'
call Read string:one

echo "# root and the group ledger, nobody else"
as member Write string:who string:am string:member
as member Read string:who string:am
as stranger Read string:who string:am
as stranger Flush
call DeleteAll

echo "# capacity"
long=$(head -c 16376 /dev/zero | tr '\000' x)
call Write string:s string:k "string:$long"
call Write string:s string:k "string:${long}x"
call Flush
stat -c '%A %s' $file
ls /var/lib/plinthware

echo "# SIGTERM writes what is pending"
call DeleteAll
call Write string:kept string:key string:value
kill -TERM "$daemon"
until_true 10 process_is_gone "$daemon"
cat $file
echo

echo "# the next one has the data"
start_daemon
call Read string:kept string:key
kill -HUP "$daemon"
until_true 10 process_is_gone "$daemon"

echo "# -k stops it, and says so when there is none"
start_daemon
stop_daemon
ledgerd -k 2>&1 | sed "s/$daemon/PID/"
rm /run/ledgd.pid
ledgerd -k 2>&1
ls /run

echo "# without a bus"
bus=$(cat /run/dbus/pid)
kill "$bus"
until_true 10 process_is_gone "$bus"
ledgerd 2>&1
echo "status $?"

echo "# kernel log"
program_log
