#!/bin/sh
# with_pkg_config.sh PKG_CONFIG PREFIX LIBRARIES PACKAGES SOURCE CHECK COMPILER...: builds SOURCE with the
# flags that pkg-config gives for PACKAGES of the tree installed under PREFIX, and runs `CHECK PROGRAM`.
# PACKAGES and CHECK may be several words.
set -eu
pkg_config=$1 prefix=$2 libraries=$3 packages=$4 source=$5 check=$6
shift 6
program=$(mktemp)
trap 'rm -f "$program"' EXIT
export PKG_CONFIG_PATH="$libraries/pkgconfig"
[ "$(realpath "$("$pkg_config" --variable=prefix orvane)")" = "$(realpath "$prefix")" ]
flags=$("$pkg_config" --cflags --libs $packages)
"$@" -std=c++17 -o "$program" "$source" $flags -Wl,-rpath,"$libraries"
$check "$program"
