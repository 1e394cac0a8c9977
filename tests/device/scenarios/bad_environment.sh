# shellcheck shell=dash disable=SC2119 source=tests/device/guest/library.sh
# Boards whose bootloader environment is missing or damaged: the messages in the kernel log, and that the daemon works.
. /scenario/library.sh

serve() {
  echo "# $1"
  start_daemon
  call Write string:case string:name "string:$1"
  call Read string:case string:name
  stop_daemon
  program_log
  hardware_report 2>/dev/null | sed -n '/^hardware flags\|^OEM/p'
}

start_bus
serve "no NAND device"

nand
serve "blank flash"
environment PW_FORMAT=01 PW_HWFLAGS=0x31 PW_OEM_ID=7
serve "format is not quite 1"
no_nand

nand
environment PW_HWFLAGS=0x31
serve "no format"
no_nand

nand
environment PW_FORMAT=1 PW_OEM_ID=7
serve "no hardware flags"
no_nand

nand
environment PW_FORMAT=1 PW_HWFLAGS=0 PW_OEM_MODEL=5R377
serve "no hardware flag is set"
no_nand

nand
environment PW_FORMAT=1 NONSENSE PW_HWFLAGS=061
serve "a string without an equals sign"
no_nand

nand
{ record PW_FORMAT=1 PW_HWFLAGS=0x31 && printf '\007'; } >/tmp/environment
nandwrite -q -p /dev/mtd0 /tmp/environment
serve "a record of an unknown type"
no_nand

nand
{ record PW_FORMAT=1 && printf '\377'; } >/tmp/environment
nandwrite -q -p /dev/mtd0 /tmp/environment
serve "records that end in erased flash"
no_nand

nand badblocks=0,1,2,3,4,5,6,7
serve "every block is bad"
no_nand

insmod /modules/nandsim_as_built.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6 parts=8
sed 1d /proc/mtd
serve "no partition of that name"
