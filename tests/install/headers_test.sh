#!/usr/bin/env bash
# Every installed header can be included first and alone, with nothing but what is installed, from C++17 on; and the API
# reference is made of just these.
#
# usage: headers_test.sh BUILD COMPILER
set -euo pipefail

build=$1 compiler=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$build" --component development > /dev/null
headers=$stage/usr/include/orbamira
folders=(-I "$headers" -isystem /usr/include/jsoncpp)
while read -r bundled; do
  folders+=(-isystem "$bundled/..")
done < <(find "$stage" -path '*/include/cpr')

failed=0
count=0
while read -r header; do
  count=$((count + 1))
  printf '#include "%s"\n' "$header" |
    "$compiler" -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -x c++ "${folders[@]}" - || {
    printf '%s cannot be included alone\n' "$header"
    failed=1
  }
done < <(cd "$headers" && find . -name '*.h' -printf '%P\n' | sort)
printf '%d headers\n' "$count"
top=$(cd "$(dirname "$0")/../.." && pwd)
diff -u --label installed --label docs/Doxyfile <(cd "$headers" && find . -name '*.h' -printf '%P\n' | sort) \
  <(grep -oE '[a-z_]+/[a-z_]+\.h\b' "$top/docs/Doxyfile" | sort) || failed=1
[ "$count" -gt 0 ] || failed=1
exit "$failed"
