# shellcheck shell=dash source=tests/device/guest/library.sh
# Not a test: measures how many blocks of 128 KiB are erased for each write of the registry. UBIFS must not compress
# here, because the effect of compression depends on the values.
. /scenario/library.sh

for module in crc16 deflate zstd_compress zstd ubi ubifs; do
  insmod "/modules/$module.ko"
done
insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6
ubiformat -q -y /dev/mtd0 >/dev/null
ubiattach -m 0 >/dev/null
# A volume only for the registry.
ubimkvol /dev/ubi0 -N data -s 4MiB >/dev/null
ubidetach -d 0
dbus-daemon --system

# erasures: prints the sum of UBI's erase counters. Each block has one at its bytes 8 to 15, big-endian.
erasures() {
  local block=0 sum=0
  while [ $block -lt 64 ]; do
    # The upper bytes are zero here.
    # shellcheck disable=SC2046
    set -- $(dd if=/dev/mtd0 bs=8 skip=$((block * 16384 + 1)) count=1 2>/dev/null | od -An -tu1)
    sum=$((sum + ($6 * 256 + $7) * 256 + $8))
    block=$((block + 1))
  done
  echo $sum
}

# write_often FIRST_NUMBER COUNT BYTES
write_often() {
  ubiattach -m 0 >/dev/null
  mount -t ubifs -o compr=none,sync ubi0:data /var/lib/plinthware || exit 1
  ledgerd
  flush_storm "$@" >/dev/null
  ledgerd -k
  until_true 10 process_is_gone "$(cat /run/ledgd.pid)"
  wc -c </var/lib/plinthware/registry
  umount /var/lib/plinthware
  ubidetach -d 0
}

for bytes in 16383 4000 1000 100; do
  # The first writes overwrite the old data and fill the volume as far as it fills.
  write_often 1 200 $bytes >/dev/null
  before=$(erasures)
  written=$(write_often 201 400 $bytes)
  echo "a text of $written bytes: $(($(erasures) - before)) blocks erased in 400 writes"
done
