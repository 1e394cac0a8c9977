# shellcheck shell=dash disable=SC2154 source=tests/device/guest/library.sh
# One life of a board whose registry is on ext4, until the host cuts the power. Sends the contents of the registry file
# after the previous cut to the host, then writes without end. The kernel's command line sets $first_number and
# $mount_options.
. /scenario/library.sh
exec >/dev/console 2>&1

for module in crc16 crc32c_generic mbcache jbd2 ext4 virtio_blk; do
  insmod "/modules/$module.ko"
done
until_true 10 [ -e /dev/vda ]
mount -t ext4 -o "$mount_options" /dev/vda /var/lib/plinthware
registry_found >/dev/host

dbus-daemon --system
ledgerd
flush_storm "$first_number" >/dev/host 2>&1
