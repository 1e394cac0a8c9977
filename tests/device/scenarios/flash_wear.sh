# shellcheck shell=dash source=tests/device/guest/library.sh
# Not a test: what one write of the registry costs the flash, in erased blocks of 128 KiB. UBIFS would compress, by how
# much depends on the values; here it must not.
. /scenario/library.sh

for module in crc16 deflate zstd_compress zstd ubi ubifs; do
  insmod "/modules/$module.ko"
done
insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6
ubiformat -q -y /dev/mtd0 >/dev/null
ubiattach -m 0 >/dev/null
# A volume for the registry alone.
ubimkvol /dev/ubi0 -N data -s 4MiB >/dev/null
ubidetach -d 0
start_bus

# erasures: the sum of UBI's counters, of which each block has one: eight bytes, big end first, behind eight others.
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
  # What was there before must have been overwritten by then, and the volume be as full as it gets.
  write_often 1 200 $bytes >/dev/null
  before=$(erasures)
  written=$(write_often 201 400 $bytes)
  echo "a text of $written bytes: $(($(erasures) - before)) blocks erased in 400 writes"
done
