# shellcheck shell=dash source=tests/device/guest/library.sh
# The operations on a real NAND device.
. /scenario/library.sh

nand badblocks=0,2
board_report nand
