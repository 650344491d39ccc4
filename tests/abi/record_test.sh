#!/usr/bin/env bash
# Records a build's interface in a copy of this folder: the build must then be found to keep it, and a record that asks
# for more must not.
#
# usage: record_test.sh BUILD
# Ends with 77 where libabigail's programs are not installed.
set -euo pipefail

copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp "$(dirname "$0")"/{abi.sh,foreign_types.ini} "$copy"

"$copy/abi.sh" --record "$1"
"$copy/abi.sh" "$1"

# The record now has a symbol that the build lacks.
sed -i 's/_ZN8orbamira7updater11PackManager6CreateEv/_ZN8orbamira7updater11PackManager6CreateEvGone/' \
  "$copy/liborbamira_updater.abi"
if "$copy/abi.sh" "$1" orbamira_updater > "$copy/report"; then
  printf 'a symbol that is gone was not missed\n' >&2
  exit 1
fi
grep -q PackManager "$copy/report"
