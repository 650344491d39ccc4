#!/usr/bin/env bash
# A program that needs no loader: nothing but the program itself decides the status that it ends with.
#
# usage: static_program_test.sh PROGRAM
set -euo pipefail

program=$1
if readelf --wide --program-headers "$program" | grep INTERP > /dev/null || readelf --dynamic "$program" | grep NEEDED > /dev/null; then
  printf '%s asks for a loader or a shared library\n' "$program"
  exit 1
fi
