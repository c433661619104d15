#!/usr/bin/env bash
# update-symbols.sh: rewrites debian/libtovi1.symbols and debian/libvrlog1.symbols
# from a fresh build of the two libraries. The package build fails (dpkg-gensymbols
# -c4) when the exported symbols and these lists differ, so run this after an
# intended change of the interface and review the diff. A symbol already listed
# keeps its version; a new one gets the version in CMakeLists.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/symbols
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVI_BUILD_TESTS=OFF -DTOVI_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target tovi vrlog -j2 >/dev/null
version=$(sed -n 's/^project(tovi VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

# write LIBRARY PACKAGE
write() {
    local lib=$1 package=$2 file=debian/$2.symbols so
    so=$(readlink -f "$build/src/$lib.so")
    local soname
    soname=$(objdump -p "$so" | awk '$1 == "SONAME" {print $2}')
    local old=""
    [ -f "$file" ] && old=$(cat "$file")
    {
        echo "$soname $package #MINVER#"
        nm -D --defined-only "$so" | awk '$2 ~ /^[TDBRVWiu]$/ {print $3}' |
            grep -Ev '^(_init|_fini|_edata|_end|__bss_start)$' | LC_ALL=C sort -u |
            while read -r sym; do
                kept=$(printf '%s\n' "$old" | awk -v s="$sym@Base" '$1 == s {print $2; exit}')
                echo " $sym@Base ${kept:-$version}"
            done
    } >"$file.new"
    mv "$file.new" "$file"
    echo "$file: $(($(wc -l <"$file") - 1)) symbols"
}
write libtovi libtovi1
write libvrlog libvrlog1
