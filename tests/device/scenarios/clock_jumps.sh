# shellcheck shell=dash disable=SC2119 source=tests/device/guest/library.sh
# Changes of the wall clock do not affect the time of the write, which is 60 s after the first change of the registry.
. /scenario/library.sh

file=/var/lib/plinthware/registry

# elapsed CENTISECONDS: succeeds if that time has passed since the start of the daemon.
elapsed() {
  [ $(($(uptime_centiseconds) - start)) -ge "$1" ]
}

nand
environment PW_FORMAT=1 PW_HWFLAGS=0x31
dbus-daemon --system
start_daemon
start=$(uptime_centiseconds)
call Write string:clock string:before string:jump

date -u -s "@$(($(date +%s) + 100000))" >/dev/null
call Write string:clock string:after string:jump
until_true 10 elapsed 500
test -e $file && echo "written too early after a jump forward"

date -u -s "@$(($(date +%s) - 200000))" >/dev/null
until_true 120 [ -e $file ]
if elapsed 6000 && ! elapsed 6500; then
  echo "written after 60 s"
else
  echo "written after $(($(uptime_centiseconds) - start)) hundredths of a second"
fi
cat $file
echo
stop_daemon
program_log
