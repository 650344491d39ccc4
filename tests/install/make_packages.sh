#!/usr/bin/env bash
# Makes the Debian packages of a build, for the tests that look at them.
#
# usage: make_packages.sh BUILD FOLDER
# Ends with 77 (skipped) where a program that makes packages is missing.
set -euo pipefail

rm -rf "$2"
for program in cpack dpkg-deb dpkg-shlibdeps file; do
  command -v "$program" > /dev/null || {
    printf 'skipped: %s is not installed\n' "$program"
    exit 77
  }
done
cpack --config "$1/CPackConfig.cmake" -B "$2"
