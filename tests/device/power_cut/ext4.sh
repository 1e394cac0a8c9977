# shellcheck shell=dash source=tests/device/guest/library.sh
# One life of a board whose registry lies on ext4, up to the moment at which the host cuts the power. Tells the host what
# the registry file holds after the cut before, then writes until it ends.
. /scenario/library.sh
exec >/dev/console 2>&1

for module in crc16 crc32c_generic mbcache jbd2 ext4 virtio_blk; do
  insmod "/modules/$module.ko"
done
until_true 10 [ -e /dev/vda ]
mount -t ext4 -o "$(cat /scenario/mount_options)" /dev/vda /var/lib/plinthware
registry_found >/dev/host

start_bus
ledgerd
flush_storm "$(cat /scenario/number)" >/dev/host 2>&1
