# shellcheck shell=dash
# Functions of the scenarios. They run in the shell of the board.

# uptime_centiseconds: prints the time since the boot. Changes of the wall clock do not affect it.
uptime_centiseconds() {
  local up
  read -r up _ </proc/uptime
  up=${up%.*}${up#*.}
  echo "${up#0}"
}

# until_true SECONDS COMMAND...: repeats the command until it succeeds. Fails if that takes too long.
until_true() {
  local deadline=$(($(uptime_centiseconds) + $1 * 100))
  shift
  until "$@" 2>/dev/null; do
    if [ "$(uptime_centiseconds)" -gt "$deadline" ]; then
      echo "timed out: $*"
      return 1
    fi
    usleep 20000
  done
}

# nand OPTIONS...: adds a NAND device with blocks of 128 KiB, pages of 2 KiB and 64 bytes of spare area for each page.
# Its first eight blocks are the partition flash0.nvram.
nand() {
  insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6 parts=8 "$@"
}

# environment TEXT...: writes a record for each text and the byte $end_mark (octal, normally 0) to the first good block,
# as the bootloader does.
environment() {
  local text
  {
    for text in "$@"; do
      printf "\\001\\$(printf %03o $((${#text} + 1)))\\000%s" "$text"
    done
    printf %b "\\0${end_mark:-000}"
  } >/tmp/environment
  nandwrite -q -p /dev/mtd0 /tmp/environment
}

# program_log: prints what programs wrote to the kernel log since the last call: the priority of each record, then its
# text.
program_log() {
  dmesg -r | awk -F '[<>]' '8 <= $2 && $2 < 16 {
    level = $2 - 8
    sub(/^<[0-9]+>\[ *[0-9.]+\] /, "")
    print level, $0
  }' >/tmp/log
  tail -n "+$(($(cat /tmp/log_lines 2>/dev/null || echo 0) + 1))" /tmp/log
  wc -l </tmp/log >/tmp/log_lines
}

# call METHOD ARGUMENT...: calls the registry as a client does. Prints the reply without its header.
call() {
  local method=$1
  shift
  dbus-send --system --print-reply --dest=com.tavimesh.Registry /com/tavimesh/Registry \
    "com.tavimesh.Registry.$method" "$@" 2>&1 | sed -e '/^method return/d' -e 's/^   *//'
}

process_is_gone() {
  ! kill -0 "$1"
}

# start_daemon: starts the daemon as an init script does and sets $daemon to its PID.
start_daemon() {
  ledgerd
  echo "ledgerd: status $?"
  daemon=$(cat /run/ledgd.pid)
}

stop_daemon() {
  ledgerd -k
  echo "ledgerd -k: status $?"
  until_true 10 process_is_gone "$daemon"
}

# board_identity: creates /proc/boardid from standard input. procfs accepts no new files, so it is mounted at /procfs,
# and /proc contains links to it. A link to a process dangles until the process exists.
board_identity() {
  mkdir -p /procfs
  mount -t proc proc /procfs
  mount -t tmpfs tmpfs /proc
  # shellcheck disable=SC2046
  ln -s $(find /procfs -mindepth 1 -maxdepth 1 -name '*[!0-9]*') $(seq 1 2000 | sed 's|^|/procfs/|') /proc
  cat >/proc/boardid
}

# registry_found: prints the contents of the registry file on one line, and whether the temporary file is left.
registry_found() {
  echo "found $(base64 -w 0 /var/lib/plinthware/registry 2>/dev/null || echo missing)"
  [ ! -e /var/lib/plinthware/registry~~new ] || echo "temporary file left: registry~~new"
}
