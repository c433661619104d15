#!/usr/bin/env bash
# check.sh PREFIX: builds each example against the library installed under
# PREFIX (a `cmake --install` prefix or the usr/ of unpacked packages), once
# with pkg-config and once with find_package(tovi), runs it and compares what
# it prints with EXAMPLE.out; builds and runs the test kit's example test.
# Also checks that <tovi/tovi.h> includes every installed public header.
set -euo pipefail
prefix=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

inc=$prefix/include/tovi
for h in "$inc"/tovi_*.h; do
    grep -qx "#include \"$(basename "$h")\"" "$inc/tovi.h" ||
        { echo "examples: tovi/tovi.h does not include $(basename "$h")" >&2; exit 1; }
done
pcdir=$(dirname "$(find "$prefix" -name libtovi.pc | head -1)")
export PKG_CONFIG_PATH=$pcdir
export LD_LIBRARY_PATH=$(dirname "$pcdir")

cmake -S "$src" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cmake" >/dev/null
for example in timer_work ini_worker ring_handoff; do
    # shellcheck disable=SC2046
    cc -std=c11 -Wall -Wextra -Werror "$src/$example.c" -o "$tmp/$example" $(pkg-config --cflags --libs libtovi)
    for exe in "$tmp/$example" "$tmp/cmake/$example"; do
        if ! "$exe" >"$tmp/out" 2>"$tmp/err" || ! cmp -s "$tmp/out" "$src/$example.out"; then
            echo "examples: $exe printed:" >&2
            cat "$tmp/out" "$tmp/err" >&2
            diff "$src/$example.out" "$tmp/out" >&2 || true
            exit 1
        fi
    done
done
# The test kit's example test, as an application's test program links it
# (and as find_package(tovi) built it above).
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror "$src/../testkit/example_test.c" -o "$tmp/testkit_example" \
    $(pkg-config --cflags --libs libtovi-testkit)
# Every object of the kit links with just the libraries its .pc file names.
# shellcheck disable=SC2046
echo 'int main(void) { return 0; }' | cc -x c - -o "$tmp/whole_kit" $(pkg-config --libs-only-L libtovi-testkit) \
    -Wl,--whole-archive -ltovi-testkit -Wl,--no-whole-archive $(pkg-config --libs libtovi-testkit)
for exe in "$tmp/testkit_example" "$tmp/cmake/example_test"; do
    "$exe" >/dev/null || { "$exe"; exit 1; }
done
# A test linked with libtovi before the kit is refused, saying why.
# shellcheck disable=SC2046
cc -std=c11 "$src/../testkit/example_test.c" -o "$tmp/testkit_mixed" $(pkg-config --cflags --libs libtovi libtovi-testkit)
if "$tmp/testkit_mixed" >/dev/null 2>"$tmp/err" || ! grep -q "^tovi_testkit_start: the test program calls [a-z_]* in libtovi.so.1 instead of the kit.s: link the test with libtovi-testkit instead" "$tmp/err"; then
    echo "examples: a test linked with libtovi and the kit was not refused:" >&2
    cat "$tmp/err" >&2
    exit 1
fi
echo "examples: timer_work, ini_worker and ring_handoff built with pkg-config and find_package(tovi) and ran as expected; the test kit example passed, built both ways"
