#!/bin/sh
# failures.sh BENCH_STREAM REPORT RESULTS: a form that fails once is measured nevertheless; one that always
# fails is left out with its reason, and what was measured of the others is kept.
set -eu
program=$1
report=$2
results=$3
mkdir -p "$results"

stream() {
  "$program" --rounds 2 --seconds 0.01 --size 1024 --work bytes --form orvane --form "pipe, batches" \
    --fail "pipe, batches" "$@" >"$results/stream.jsonl"
}

# lines COUNT PATTERN: so many lines of the result match.
lines() {
  found=$(grep -Ec -- "$2" "$results/stream.jsonl" || true)
  if [ "$found" != "$1" ]; then
    echo "$found lines instead of $1 match $2:"
    cat "$results/stream.jsonl"
    exit 1
  fi
}

stream --failures 1
lines 2 '"form":"orvane".*"bytes_per_second":[1-9]'
lines 1 '"form":"pipe, batches".*"round":0,"bytes_per_second":[1-9]'
lines 1 '"form":"pipe, batches".*"round":1,"bytes_per_second":[1-9]'
lines 0 '"left_out"'

# Two failures in round 0; in round 1 it is not tried again, although it would work.
stream --failures 2
lines 2 '"form":"orvane".*"bytes_per_second":[1-9]'
lines 1 '"form":"pipe, batches"'
lines 1 '"form":"pipe, batches".*"round":0,"left_out":"pipe, batches: one of the two processes failed'

# The tables are made without it, and say so.
"$report" "$results" >"$results/report"
grep -Eq '^\| stream +\| form pipe, batches, .*size 1024.* \| +0 \| +pipe, batches: one of' "$results/report"
grep -Eq '^\| orvane +\| [0-9,]+ MB/s ' "$results/report"
