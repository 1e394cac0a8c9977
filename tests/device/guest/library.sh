# shellcheck shell=dash
# What the scenarios share. Runs in the board's shell.

# uptime_centiseconds: time since the boot, which no change of the wall clock moves.
uptime_centiseconds() {
  local up
  read -r up _ </proc/uptime
  up=${up%.*}${up#*.}
  echo "${up#0}"
}

# until_true SECONDS COMMAND...: repeats the command until it succeeds; fails when that takes too long.
until_true() {
  local deadline=$(($(uptime_centiseconds) + $1 * 100))
  shift
  until "$@" 2>/dev/null; do
    if [ "$(uptime_centiseconds)" -gt "$deadline" ]; then
      echo "waited in vain for: $*"
      return 1
    fi
    usleep 20000
  done
}

# nand OPTIONS...: puts a NAND device in, 128 KiB blocks of 2 KiB pages with 64 bytes of spare area, whose first eight
# blocks are the partition flash0.nvram.
nand() {
  insmod /modules/nandsim.ko id_bytes=0xec,0xa1,0x00,0x15 overridesize=6 parts=8 "$@"
}

no_nand() {
  rmmod nandsim
}

# record TEXT...: environment records, one for each text.
record() {
  local text
  for text in "$@"; do
    printf "\\001\\$(printf %03o $((${#text} + 1)))\\000%s" "$text"
  done
}

# environment TEXT...: the same with the end behind them, as the bootloader writes it to the first good block.
environment() {
  { record "$@" && printf '\000'; } >/tmp/environment
  nandwrite -q -p /dev/mtd0 /tmp/environment
}

# What programs wrote to the kernel log since the last call: the priority of each record, then its text.
program_log() {
  dmesg -r | awk -F '[<>]' '8 <= $2 && $2 < 16 {
    level = $2 - 8
    sub(/^<[0-9]+>\[ *[0-9.]+\] /, "")
    print level, $0
  }' >/tmp/log
  tail -n "+$(($(cat /tmp/log_lines 2>/dev/null || echo 0) + 1))" /tmp/log
  wc -l </tmp/log >/tmp/log_lines
}

start_bus() {
  dbus-daemon --system
}

# call METHOD ARGUMENT...: calls the registry as a client does; prints the reply without its header.
call() {
  local method=$1
  shift
  dbus-send --system --print-reply --dest=com.tavimesh.Registry /com/tavimesh/Registry \
    "com.tavimesh.Registry.$method" "$@" 2>&1 | sed -e '/^method return/d' -e 's/^   *//'
}

process_is_gone() {
  ! kill -0 "$1"
}

# start_daemon: as an init script would; its PID is then in $daemon.
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

# board_identity: makes up /proc/boardid from standard input. procfs takes no new files, so it moves and /proc is made of
# links into it; those to processes dangle until there is such a process.
board_identity() {
  mkdir -p /procfs
  mount -t proc proc /procfs
  mount -t tmpfs tmpfs /proc
  # shellcheck disable=SC2046
  ln -s $(find /procfs -mindepth 1 -maxdepth 1 -name '*[!0-9]*') $(seq 1 2000 | sed 's|^|/procfs/|') /proc
  cat >/proc/boardid
}

# registry_found: what the registry file holds, in one line, and what else lies beside it.
registry_found() {
  echo "found $(base64 -w 0 /var/lib/plinthware/registry 2>/dev/null || echo missing)"
  [ ! -e /var/lib/plinthware/registry~~new ] || echo "beside it: registry~~new"
}
