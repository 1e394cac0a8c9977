# Sourced by scripts/package-test: Debian systems that share what they have in common. Each is a folder with what it has
# beyond those below it, for the kernel's overlay file system.
#
#   base       the smallest Debian that has apt, for amd64 with armhf beside it
#   build      and what the packages are built with, for both
#   systemd    base, with systemd and the bus
#   sysvinit   base, with the classic init and the bus
#   archives   packages that the tests install, as apt has downloaded them
# shellcheck shell=bash

build_tools="ccache crossbuild-essential-armhf lintian"
systemd_packages="dbus systemd-sysv"
sysvinit_packages="dbus initscripts sysv-rc sysvinit-core systemd-standalone-sysusers systemd-standalone-tmpfiles"

# in_layers UPPER LOWER [FOLDER:PLACE...] -- COMMAND...: runs a command in a system that consists of the folders LOWER,
# highest first, and has the machine's FOLDERs at their PLACEs. What it changes goes to UPPER.
in_layers() {
  local status=0
  mkdir -p "$1" "$1.work" "$1.root"
  # The inner shell expands it.
  # shellcheck disable=SC2016
  unshare --mount --propagation private --pid --fork --kill-child --ipc --uts -- sh -c '
    set -e
    root=$1.root
    mount -t overlay overlay -o "lowerdir=$2,upperdir=$1,workdir=$1.work" "$root"
    mount -t proc proc "$root/proc"
    shift 2
    while [ "$1" != -- ]; do
      mkdir -p "$root${1#*:}"
      mount --bind "${1%:*}" "$root${1#*:}"
      shift
    done
    shift
    exec chroot "$root" "$@"
  ' in-layers "$@" || status=$?
  rm -rf "$1.work" "$1.root"
  return $status
}

# Settings of apt and dpkg that save time: nothing here has to survive a power cut, and nobody reads translations.
write_settings() {
  echo force-unsafe-io >"$1/etc/dpkg/dpkg.cfg.d/packages-test"
  printf '%s\n' 'APT::Install-Recommends "false";' 'Acquire::Languages "none";' 'Dpkg::Use-Pty "false";' \
    >"$1/etc/apt/apt.conf.d/packages-test"
  printf '#!/bin/sh\nexit 101\n' >"$1/usr/sbin/policy-rc.d"
  chmod 755 "$1/usr/sbin/policy-rc.d"
}

# Of the point release alone: its index does not change between two requests, and both architectures have the same
# versions, without which they cannot be installed side by side.
make_base() {
  local keyring=/usr/share/keyrings/debian-archive-keyring.gpg release sources
  # shellcheck disable=SC1091
  release=$(. /etc/os-release && echo "$VERSION_CODENAME")
  sources=$(apt-get indextargets 'Created-By: Packages' 'Origin: Debian' 'Component: main' "Release: $release" \
    --format "deb [signed-by=$keyring] \$(REPO_URI) \$(RELEASE) main" | sort -u)
  if [ -z "$sources" ]; then
    echo "apt knows no Debian archive on this machine; run 'apt-get update' first." >&2
    return 1
  fi
  quietly mmdebstrap --mode=root --variant=minbase --architectures=amd64,armhf --skip=cleanup/apt/lists \
    --dpkgopt=force-unsafe-io --aptopt='Acquire::Languages "none"' "$release" "$1" - <<<"$sources"
  write_settings "$1"
}

# install_in_layer CACHE NAME COMMAND: makes the layer NAME upon the base.
install_in_layer() {
  mkdir -p "$1/control"
  cp debian/control debian/changelog "$1/control"
  quietly in_layers "$1/$2" "$1/base" "$1/control:/tmp/source/debian" -- \
    env DEBIAN_FRONTEND=noninteractive sh -ec "cd /tmp/source; $3; apt-get clean"
}

prepare_layers() {
  local cache=$1 wanted
  wanted=$(
    sed -n '/^Build-Depends:/,/^[A-Z]/p' debian/control
    printf '%s\n' "$build_tools" "$systemd_packages" "$sysvinit_packages"
  )
  [ "$(cat "$cache/stamp" 2>/dev/null)" != "$wanted" ] || return 0
  rm -rf "$cache"/{base,build,systemd,sysvinit,archives,*stamp}
  mkdir -p "$cache"
  echo "Making Debian systems in $cache ..."
  make_base "$cache/base"
  install_in_layer "$cache" build \
    "apt-get -y install $build_tools; apt-get -y build-dep ./; apt-get -y build-dep -a armhf ./"
  install_in_layer "$cache" systemd "apt-get -y install $systemd_packages"
  install_in_layer "$cache" sysvinit "apt-get -y install $sysvinit_packages"
  echo "$wanted" >"$cache/stamp"
}

# prepare_archives CACHE RESULTS: downloads what the built packages depend on and suggest, for the tests to have without
# a network.
prepare_archives() {
  local cache=$1 results=$2 wanted system
  wanted=$(for package in "$results"/*/*.deb; do dpkg-deb -f "$package" Package Architecture Depends; done)
  [ "$(cat "$cache/archives.stamp" 2>/dev/null)" != "$wanted" ] || return 0
  echo "Downloading what the packages depend on ..."
  rm -rf "$cache/archives"
  mkdir -p "$cache/archives/var/cache/apt/archives"
  for system in systemd sysvinit; do
    for architecture in amd64 armhf; do
      quietly in_layers "$cache/scratch" "$cache/$system:$cache/base" "$results:/results" \
        "$cache/archives/var/cache/apt/archives:/var/cache/apt/archives" -- \
        sh -ec "apt-get -y install --download-only /results/$architecture/*_$architecture.deb liblttng-ust1:$architecture"
      rm -rf "$cache/scratch"
    done
  done
  echo "$wanted" >"$cache/archives.stamp"
}
