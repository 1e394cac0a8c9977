# shellcheck shell=dash disable=SC2154 source=tests/device/guest/library.sh
# Several lives of a board whose registry is on UBIFS. After a random time, the test mode of UBI cuts the power when the
# next block of the flash is begun: from then on nothing reaches the flash. The flash is then attached again, as after a
# boot. The kernel's command line sets $lives and $mount_options.
. /scenario/library.sh

for module in crc16 deflate zstd_compress zstd ubi ubifs; do
  insmod "/modules/$module.ko"
done
mount -t debugfs debugfs /sys/kernel/debug
# 16 MiB of flash, because UBI reserves blocks for itself and for blocks that become bad.
insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=7
ubiformat -q -y /dev/mtd0 >/dev/null
ubiattach -m 0 >/dev/null
ubimkvol /dev/ubi0 -N data -m >/dev/null
dbus-daemon --system

cut_power_within_12_seconds() {
  # shellcheck disable=SC3028 # the board's shell has RANDOM
  usleep $((RANDOM * 366))
  echo 1 >/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut_min
  echo 1 >/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut_max
  # At either of the two headers of the block.
  echo 3 >/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut
}

number=1
for _ in $(seq "$lives"); do
  mount -t ubifs -o "$mount_options" ubi0:data /var/lib/plinthware || exit 1
  registry_found
  ledgerd
  cut_power_within_12_seconds &
  flush_storm "$number" >/tmp/storm
  cat /tmp/storm
  number=$(($(sed -n 's/^flushed //p' /tmp/storm | tail -n 1) + 2))
  # The daemon cannot write any more, so it is killed without a last flush.
  kill -KILL "$(cat /run/ledgd.pid)"
  until_true 10 process_is_gone "$(cat /run/ledgd.pid)"
  umount /var/lib/plinthware
  ubidetach -d 0
  ubiattach -m 0 >/dev/null
done
mount -t ubifs -o "$mount_options" ubi0:data /var/lib/plinthware || exit 1
registry_found
