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
  board_report 2>/dev/null | sed -n '/^hardware flags\|^OEM/p'
}

# with_environment NAME TEXT...: serves with an environment that consists of these texts.
with_environment() {
  local name=$1
  shift
  nand
  environment "$@"
  serve "$name"
  rmmod nandsim
}

dbus-daemon --system
serve "no NAND device"
nand
serve "erased flash"
rmmod nandsim
with_environment "format is not quite 1" PW_FORMAT=01 PW_HWFLAGS=0x31 PW_OEM_ID=7
with_environment "no format" PW_HWFLAGS=0x31
with_environment "no hardware flags" PW_FORMAT=1 PW_OEM_ID=7
with_environment "no hardware flag is set" PW_FORMAT=1 PW_HWFLAGS=0 PW_OEM_MODEL=5R377
with_environment "a string without an equals sign" PW_FORMAT=1 NONSENSE PW_HWFLAGS=061
end_mark=007
with_environment "a record of an unknown type" PW_FORMAT=1 PW_HWFLAGS=0x31
end_mark=377
with_environment "records that end in erased flash" PW_FORMAT=1
nand badblocks=0,1,2,3,4,5,6,7
serve "every block is bad"
rmmod nandsim
insmod /modules/nandsim_as_built.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6 parts=8
sed 1d /proc/mtd
serve "no partition of that name"
