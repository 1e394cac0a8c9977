# shellcheck shell=dash source=tests/device/guest/library.sh
# A board in factory state, except that blocks 0 and 2 are bad.
. /scenario/library.sh

nand badblocks=0,2
environment PW_FORMAT=1 PW_HWFLAGS=0x31 PW_OEM_ID=7 PW_OEM_MODEL=5R377 OTHER=a=b
cat /proc/mtd

echo "# the hardware description"
board_report

echo "# the same with a board identity"
board_identity <<'END'
Revision: C
Family: tiger
ID: 0x21
CFE-version: 38.10
Secure-keys: 1
Secure-boot: 0
Secure-ID: 0123456789abcdef
END
board_report

echo "# the daemon starts without a word"
dbus-daemon --system
start_daemon
call SectionList
stop_daemon
program_log
