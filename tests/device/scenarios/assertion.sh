# shellcheck shell=dash disable=SC2119 source=tests/device/guest/library.sh
# A failed assertion of the daemon in the real kernel log. A partition table that contradicts the device causes it.
. /scenario/library.sh

nand
cat /proc/mtd >/tmp/mtd
sed -i 's/^mtd0: 00100000/mtd0: 00010000/' /tmp/mtd
mount --bind /tmp/mtd /proc/mtd
dbus-daemon --system

without_numbers() {
  sed -e 's/process [0-9]*/process PID/' -e 's/:[0-9]*:/:LINE:/'
}

echo "# in the foreground"
ledgerd -d &
process=$!
wait $process
echo "status $?"
program_log | without_numbers

echo "# as a daemon"
ledgerd
echo "status $?"
program_log | without_numbers
