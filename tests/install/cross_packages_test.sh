#!/usr/bin/env bash
# The Debian packages of a build for another architecture: they name it, are laid out for it, and depend on its libraries.
#
# usage: cross_packages_test.sh BUILD ARCH TRIPLET
set -euo pipefail

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
"$(dirname "$0")/make_packages.sh" "$1" "$folder/packages" > "$folder/log" 2>&1 || {
  status=$?
  cat "$folder/log"
  exit "$status"
}

failed=0
# expect WORDS COMMAND...
expect() {
  if "${@:2}"; then
    printf 'ok: %s\n' "$1"
  else
    printf 'FAILED: %s\n' "$1"
    failed=1
  fi
}

# shellcheck disable=SC2317 # called by expect
# depends PACKAGE LIBRARY...
depends() {
  local library all
  all=$(dpkg-deb --field "$1" Depends)
  for library in "${@:2}"; do
    [[ ", $all " == *", $library "* ]] || {
      printf '%s does not depend on %s, but on: %s\n' "${1##*/}" "$library" "$all"
      return 1
    }
  done
}

# shellcheck disable=SC2317 # called by expect
# contains PACKAGE PATH
contains() {
  local all
  all=$(dpkg-deb --contents "$1")
  [[ "$all" == *"$2"* ]]
}

# shellcheck disable=SC2317 # called by expect
# holds_programs PACKAGE: every program and library in it is for the architecture
holds_programs() {
  local root found
  root=$folder/$(basename "$1" .deb)
  dpkg-deb --extract "$1" "$root"
  found=$(find "$root" -type f -exec file {} + | grep ELF || true)
  [ -n "$found" ] && ! grep -v "$machine" <<< "$found"
}

case "$2" in
  arm64) machine='ARM aarch64' ;;
  armhf) machine='ARM, EABI5' ;;
esac
packages=("$folder"/packages/*_"$2".deb)
expect "there are four packages of $2" [ "${#packages[@]}" -eq 4 ]
for package in "${packages[@]}"; do
  expect "${package##*/} is for $2" [ "$(dpkg-deb --field "$package" Architecture)" = "$2" ]
  case "${package##*/}" in
    *-dev_*) ;;
    liborbamira*)
      expect "${package##*/} depends on what it links" depends "$package" libc6 libstdc++6 libjsoncpp25 libssl3 libcurl4
      expect "${package##*/} has its libraries below lib/$3" \
        contains "$package" "usr/lib/$3/liborbamira_updater.so.1"
      expect "${package##*/} has programs of $2" holds_programs "$package"
      ;;
    *)
      expect "${package##*/} depends on what it links" depends "$package" libc6 libstdc++6
      expect "${package##*/} has programs of $2" holds_programs "$package"
      ;;
  esac
done
exit "$failed"
