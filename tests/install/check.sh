#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a C application
# against it twice: through pkg-config and through find_package(tovi).
set -euo pipefail
build=$1
src=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(find "$tmp/prefix" -name libtovi.pc -printf '%h\n' | head -1)
export PKG_CONFIG_PATH="$libdir"
export LD_LIBRARY_PATH="$libdir/.."

# shellcheck disable=SC2046
cc -std=c11 -Wall -Werror "$src/consumer.c" -o "$tmp/by_pkgconfig" $(pkg-config --cflags --libs libtovi)
out=$("$tmp/by_pkgconfig" 2>/dev/null)
[ "$out" = "$(grep -o '^project(tovi VERSION [0-9.]*' "$src/../../CMakeLists.txt" | awk '{print $3}') KOMI 1" ] || { echo "pkg-config build printed '$out'"; exit 1; }

cmake -S "$src" -B "$tmp/app" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/app" >/dev/null
out2=$("$tmp/app/consumer" 2>/dev/null)
[ "$out2" = "$out" ] || { echo "find_package build printed '$out2'"; exit 1; }
echo "installed library works through pkg-config and find_package: $out"

# The examples against the same installed tree.
"$src/../../examples/check.sh" "$tmp/prefix"
