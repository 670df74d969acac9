#!/bin/sh
# smoke.sh RESULT LINE PROGRAM ARGUMENT...: the program succeeds, leaves nothing out, and prints a line that
# matches. What it prints is kept in RESULT.
set -eu
result=$1
line=$2
shift 2
"$@" >"$result"
if grep '"left_out"' "$result"; then
  exit 1
fi
grep -Eq -- "$line" "$result"
