# shellcheck shell=dash source=tests/device/guest/library.sh
# Lives of a board whose registry lies on UBIFS. The file system's own test mode cuts the power below itself, in the
# middle of a write to the flash, after a random time: what is half written is damaged and nothing more reaches the
# flash. The flash is then attached anew, as after a boot.
. /scenario/library.sh

for module in crc16 deflate zstd_compress zstd ubi ubifs; do
  insmod "/modules/$module.ko"
done
mount -t debugfs debugfs /sys/kernel/debug
# 16 MiB of flash: UBI keeps blocks for itself and for those that go bad.
insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=7
ubiformat -q -y /dev/mtd0 >/dev/null
ubiattach -m 0 >/dev/null
ubimkvol /dev/ubi0 -N data -m >/dev/null
start_bus

number=1
for _ in $(seq "$(cat /scenario/number)"); do
  mount -t ubifs ubi0:data /var/lib/plinthware || exit 1
  registry_found
  ledgerd
  echo 1 >/sys/kernel/debug/ubifs/ubi0_0/tst_recovery
  flush_storm "$number" >/tmp/storm
  cat /tmp/storm
  number=$(($(sed -n 's/^flushed //p' /tmp/storm | tail -n 1) + 2))
  # The daemon cannot write any more, so it is not asked to.
  kill -KILL "$(cat /run/ledgd.pid)"
  until_true 10 process_is_gone "$(cat /run/ledgd.pid)"
  umount /var/lib/plinthware
  ubidetach -d 0
  ubiattach -m 0 >/dev/null
done
mount -t ubifs ubi0:data /var/lib/plinthware || exit 1
registry_found
