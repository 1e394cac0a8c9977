# Sourced by the other scripts: what the project needs from Debian, and how it is installed.
# shellcheck shell=bash disable=SC2034

build_packages="cmake dbus g++ libboost-dev libcli11-dev libdbus-1-dev libdbus-c++-dev libfmt-dev liblttng-ust-dev
                libutfcpp-dev ninja-build nlohmann-json3-dev pkgconf"
run_packages="systemd util-linux"
armhf_packages="cpio e2fsprogs g++-arm-linux-gnueabihf python3 qemu-system-arm qemu-user-static"
test_packages="babeltrace2 bash-completion clang clang-format clang-tidy cppcheck fish gcovr git libclang-rt-dev
               libglib2.0-bin libgmock-dev libgtest-dev lttng-tools procps python3 python3-clang python3-dbus
               python3-jsonschema python3-pyflakes python3-pytest shellcheck strace zsh"
bench_packages="binutils python3 valgrind xfconf"
fuzz_packages="clang libclang-rt-dev llvm"
page_packages="man-db mandoc scdoc"
package_packages="binutils debian-archive-keyring mmdebstrap python3 python3-dbus python3-pytest qemu-user-static"

# quietly COMMAND...: shows what a command printed only if it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || status=$?
  [ $status = 0 ] || cat "$log" >&2
  rm -f "$log"
  return $status
}

# install_packages PACKAGE...: installs those that are missing, as root or through sudo.
install_packages() {
  local missing=() package as_root=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing ${missing[*]} ..."
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  quietly "${as_root[@]}" apt-get -q update
  quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-install-recommends "${missing[@]}"
}
