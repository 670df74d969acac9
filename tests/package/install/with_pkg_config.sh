#!/bin/sh
# with_pkg_config.sh PKG_CONFIG PREFIX LIBRARIES SOURCE COMPILER...: builds SOURCE with the flags that
# pkg-config gives for the tree installed under PREFIX, and runs it.
set -eu
pkg_config=$1 prefix=$2 libraries=$3 source=$4
shift 4
program=$(mktemp)
trap 'rm -f "$program"' EXIT
export PKG_CONFIG_PATH="$libraries/pkgconfig"
[ "$(realpath "$("$pkg_config" --variable=prefix orvane)")" = "$(realpath "$prefix")" ]
flags=$("$pkg_config" --cflags --libs orvane orvane-lease orvane-platform)
"$@" -std=c++17 -o "$program" "$source" $flags -Wl,-rpath,"$libraries"
"$program"
