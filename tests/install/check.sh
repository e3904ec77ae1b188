#!/bin/sh
# check.sh BUILD_DIR: installs the build into a temporary prefix, then builds
# and runs a consumer that finds it through CMake and through pkg-config.
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/ | head -1)
PKG_CONFIG_PATH="$libdir/pkgconfig" cmake -S "$here" -B "$work/consumer" \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_cmake"
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_pkgconfig"
