#!/usr/bin/env bash
# Debian's own checker finds nothing to object to in the packages, but what they override with a reason.
#
# usage: lintian_test.sh FOLDER
# Ends with 77 (skipped) where lintian is not installed or no packages could be made.
set -euo pipefail

command -v lintian > /dev/null || {
  printf 'skipped: lintian is not installed (scripts/setup --lint installs it)\n'
  exit 77
}
[ -d "$1" ] || {
  printf 'skipped: no packages were made\n'
  exit 77
}
packages=("$1"/*.deb)
lintian --allow-root --fail-on error,warning "${packages[@]}"
printf '%d packages\n' "${#packages[@]}"
