# Sourced by scripts/package-test: layers of Debian systems for the kernel's overlay file system. Each is a directory of
# the files that it adds to the layers below it.
#
#   base       the smallest Debian that has apt, for amd64 with armhf as a foreign architecture
#   build      base, with the tools and libraries that build the packages for both
#   systemd    base, with systemd and the bus
#   sysvinit   base, with the classic init and the bus
#   archives   packages that the tests install, as apt has downloaded them
# shellcheck shell=bash

build_tools="ccache crossbuild-essential-armhf lintian"
systemd_packages="dbus systemd-sysv"
sysvinit_packages="dbus initscripts sysv-rc sysvinit-core systemd-standalone-sysusers systemd-standalone-tmpfiles"

# in_layers UPPER LOWER [DIRECTORY:TARGET...] -- COMMAND...: runs a command in a system that consists of the directories
# LOWER, highest first. Mounts each DIRECTORY of the machine at its TARGET. UPPER receives the changes.
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

# Settings that save time: no file has to survive a power cut, and nobody reads translations. No service starts while a
# system is made.
settings='
  echo force-unsafe-io >etc/dpkg/dpkg.cfg.d/packages-test
  echo "APT::Install-Recommends \"false\"; Acquire::Languages \"none\"; Dpkg::Use-Pty \"false\";" \
    >etc/apt/apt.conf.d/packages-test
  echo "#!/bin/sh\nexit 101" >usr/sbin/policy-rc.d
  chmod 755 usr/sbin/policy-rc.d
'

# make_base DIRECTORY SUITE: from the point release only. Its index does not change between two requests, and both
# architectures have the same versions, which they must have to be installed together.
make_base() {
  local keyring=/usr/share/keyrings/debian-archive-keyring.gpg release sources
  # shellcheck disable=SC1091
  release=$(. /etc/os-release && echo "$VERSION_CODENAME")
  sources=$(apt-get indextargets 'Created-By: Packages' 'Origin: Debian' 'Component: main' "Release: $release" \
    --format "deb [signed-by=$keyring] \$(REPO_URI) $2 main" | sort -u)
  if [ -z "$sources" ]; then
    echo "apt knows no Debian archive on this machine; run 'apt-get update' first." >&2
    return 1
  fi
  quietly mmdebstrap --mode=root --variant=minbase --architectures=amd64,armhf --skip=cleanup/apt/lists \
    --dpkgopt=force-unsafe-io --aptopt='Acquire::Languages "none"' "$2" "$1" - <<<"$sources"
  (cd "$1" && sh -ec "$settings")
}

# is_made CACHE NAME WANTED: whether the directory NAME exists and was made from WANTED.
is_made() {
  [ -d "$1/$2" ] && [ "$(cat "$1/$2.stamp" 2>/dev/null)" = "${3%$'\n'}" ]
}

# prepare_layer CACHE NAME COMMAND [DIRECTORY:TARGET]: makes the layer NAME on the base if it is missing.
prepare_layer() {
  local cache=$1 name=$2 command=$3
  shift 3
  ! is_made "$cache" "$name" "$command" || return 0
  echo "Making the system $name ..."
  rm -rf "${cache:?}/$name"
  quietly in_layers "$cache/$name" "$cache/base" "$@" -- env DEBIAN_FRONTEND=noninteractive sh -ec "$command
    apt-get clean"
  echo "$command" >"$cache/$name.stamp"
}

# prepare_layers CACHE SUITE: makes the systems of a release of Debian if they are missing.
prepare_layers() {
  local cache=$1 needs
  mkdir -p "$cache/control/debian"
  if ! is_made "$cache" base "$settings"; then
    echo "Making Debian systems in $cache ..."
    rm -rf "$cache"/{base,build,systemd,sysvinit,archives}
    make_base "$cache/base" "$2"
    echo "$settings" >"$cache/base.stamp"
  fi
  cp debian/control debian/changelog "$cache/control/debian"
  # The comment is for the stamp.
  needs=$(sed -n '/^Build-Depends:/,/^Standards-Version:/p' debian/control | tr -d '\n')
  prepare_layer "$cache" build "apt-get -y install $build_tools # $needs
    cd /tmp/source; apt-get -y build-dep ./; apt-get -y build-dep -a armhf -P cross,nocheck ./" \
    "$cache/control:/tmp/source"
  prepare_layer "$cache" systemd "apt-get -y install $systemd_packages"
  prepare_layer "$cache" sysvinit "apt-get -y install $sysvinit_packages"
}

# prepare_archives CACHE RESULTS: downloads the packages that the built ones depend on and suggest. The tests have no
# network.
prepare_archives() {
  local cache=$1 results=$2 wanted system tracer
  wanted=$(for package in "$results"/*/*.deb; do dpkg-deb -f "$package" Package Architecture Depends Suggests; done)
  ! is_made "$cache" archives "$wanted" || return 0
  echo "Downloading what the packages depend on ..."
  rm -rf "$cache/archives"
  mkdir -p "$cache/archives/var/cache/apt/archives"
  for system in systemd sysvinit; do
    for architecture in amd64 armhf; do
      tracer=$(dpkg-deb -f "$results/$architecture"/ledgerd_*.deb Suggests | cut -d " " -f 1)
      quietly in_layers "$cache/scratch" "$cache/$system:$cache/base" "$results:/results" \
        "$cache/archives/var/cache/apt/archives:/var/cache/apt/archives" -- \
        sh -ec "apt-get -y install --download-only /results/$architecture/*_$architecture.deb $tracer:$architecture"
      rm -rf "$cache/scratch"
    done
  done
  echo "$wanted" >"$cache/archives.stamp"
}
