#!/bin/sh
# compare.sh NM LIBRARY LIST: fails unless LIBRARY exports exactly the names in LIST, each with its
# version. A name that is gone, or has another version, breaks programs that were linked with it; a new
# one is a promise to keep.
# After a deliberate change: compare.sh NM LIBRARY LIST --update
set -eu
export LC_ALL=C
exported=$("$1" -D --defined-only "$2" | sed -E 's/^[0-9a-f]+ . //' | c++filt | sort -u)
if [ "${4-}" = --update ]; then
  printf '%s\n' "$exported" > "$3"
fi
printf '%s\n' "$exported" | diff -u "$3" - || {
  echo "$2 does not export what $3 lists (- gone, + new)" >&2
  exit 1
}
if printf '%s\n' "$exported" | grep -i boost; then
  echo "$2 exports names of Boost: they would clash with the application's own copy" >&2
  exit 1
fi
