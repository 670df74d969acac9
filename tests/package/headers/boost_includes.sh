#!/bin/sh
# Fails when a header below the given folders includes any Boost header but the one that declares
# its classes.
set -eu
for folder in "$@"; do
  test -n "$(find -L "$folder" -name '*.hpp')" || { echo "no headers in $folder" >&2; exit 1; }
done
if grep -rnE '#[[:space:]]*include[[:space:]]*[<"]boost/' "$@" |
  grep -v '<boost/interprocess/interprocess_fwd\.hpp>'; then
  echo 'Forward-declare it: an application must not need Boost to use these headers.' >&2
  exit 1
fi
