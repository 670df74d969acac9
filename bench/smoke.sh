#!/bin/sh
# smoke.sh RESULT LINE PROGRAM ARGUMENT...: the program succeeds, and prints a line that matches. What it
# prints is kept in RESULT.
set -eu
result=$1
line=$2
shift 2
"$@" >"$result"
grep -Eq -- "$line" "$result"
