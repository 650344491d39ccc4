#!/usr/bin/env bash
# A program that needs no loader: nothing but the program itself decides the status that it ends with.
#
# usage: static_program_test.sh PROGRAM
set -euo pipefail

program=$1
if readelf --wide --program-headers "$program" | grep -q INTERP || readelf --dynamic "$program" | grep -q NEEDED; then
  printf '%s asks for a loader or a shared library\n' "$program"
  exit 1
fi
