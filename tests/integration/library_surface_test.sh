#!/usr/bin/env bash
# What leaves a shared library and what it asks for: only this project's own namespaces are defined in it for others,
# and it needs no library but those that the project chose.
#
# usage: library_surface_test.sh LIBRARY
set -euo pipefail

library=$1
failed=0

own='^(typeinfo for |typeinfo name for |vtable for )?(orbamira|orbazelo)::'
foreign=$(nm --dynamic --demangle --defined-only "$library" | sed -E 's/^[0-9a-f]+ . //' | grep -vE "$own" || true)
if [ -n "$foreign" ]; then
  printf 'exported, but not ours:\n%s\n' "$foreign"
  failed=1
fi

if ! nm --dynamic --demangle --defined-only "$library" | grep 'vtable for orbamira::' > /dev/null; then
  printf 'no class of ours is exported\n'
  failed=1
fi

chosen='^(liborbamira_platform|libjsoncpp|libcrypto|libssl|libarchive|libisal|libstdc\+\+|libgcc_s|libm|libc|ld-linux-x86-64|ld-linux-aarch64|ld-linux-armhf)\.so'
unexpected=$(readelf --dynamic "$library" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | grep -vE "$chosen" || true)
if [ -n "$unexpected" ]; then
  printf 'needed, but not chosen:\n%s\n' "$unexpected"
  failed=1
fi
exit "$failed"
