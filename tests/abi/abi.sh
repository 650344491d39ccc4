#!/usr/bin/env bash
# Compares the binary interface of the libraries in a build with the recorded one; README.md tells more.
#
# usage: tests/abi/abi.sh [--record] BUILD [LIBRARY]
#   --record   takes the build's interface for the new record
#   BUILD      a build folder of the dev preset: recorded is what g++ makes without optimization
#   LIBRARY    orbamira_platform or orbamira_updater; both without it
# Ends with 77 where libabigail's programs are not installed.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
record=
if [ "${1:-}" = --record ]; then
  record=yes
  shift
fi
if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  sed -n '4,8s/^# \{0,1\}//p' "$0" >&2
  exit 64
fi
build=$(cd "$1" && pwd)
libraries=("${2:-orbamira_platform}")
[ $# -eq 2 ] || libraries+=(orbamira_updater)

if ! command -v abidw > /dev/null || ! command -v abidiff > /dev/null; then
  printf 'skipped: abidw and abidiff are not installed (scripts/setup --lint installs them)\n'
  exit 77
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
DESTDIR=$scratch/stage cmake --install "$build" --component development > /dev/null

# describe LIBRARY: its interface as a text that is the same wherever it was compiled.
describe() {
  local library=lib$1 folder=${1#orbamira_}
  abidw --headers-dir "$scratch/stage/usr/include/orbamira" --drop-private-types \
    --suppressions "$here/foreign_types.ini" --no-corpus-path --no-comp-dir-path --no-show-locs --no-architecture \
    --drop-undefined-syms --no-elf-needed --no-parameter-names --type-id-style hash "$build/$folder/$library.so" |
    sed -E "s|( path=')[^']*/($folder/[^/']*')|\1\2|"
}

status=0
for library in "${libraries[@]}"; do
  recorded=$here/lib$library.abi
  describe "$library" > "$scratch/$library.abi"
  if [ -n "$record" ]; then
    cp "$scratch/$library.abi" "$recorded"
  elif ! abidiff --no-added-syms "$recorded" "$scratch/$library.abi"; then
    printf '\nlib%s: what is built for the recorded interface would break; see tests/abi/README.md\n' "$library"
    status=1
  fi
done
exit "$status"
