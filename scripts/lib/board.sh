# Sourced by the scripts that use the emulated board, in the project's directory.
# shellcheck shell=bash

. scripts/lib/dependencies.sh

# build_for_board TARGET...: prepares the board and builds the programs that run on it.
build_for_board() {
  # shellcheck disable=SC2086
  install_packages $build_packages
  scripts/armhf-sysroot
  echo "Building for 32-bit ARM in build/armhf ..."
  quietly cmake --preset armhf
  quietly cmake --build --preset armhf --target "$@"
}
