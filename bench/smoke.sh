#!/bin/sh
# smoke.sh LINE PROGRAM ARGUMENT...: the program succeeds and prints a line that matches. Keeps what it
# printed in a file named after the program.
set -eu
line=$1
program=$2
shift 2
"$program" "$@" >"$(basename "$program").out"
grep -Eq -- "$line" "$(basename "$program").out"
