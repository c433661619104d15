#!/usr/bin/env bash
# The whole test suite: native, under AddressSanitizer + UndefinedBehavior-
# Sanitizer, the concurrency tests under ThreadSanitizer, and the aarch64
# build under qemu-aarch64; the Debian packages, built, unpacked into a
# throw-away root and serving the examples.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
run() {
    local variant=$1; shift
    echo "=== $variant"
    scripts/build.sh "$variant"
    ctest --test-dir "build/$variant" --output-on-failure -j2 "$@"
}
run native
echo "=== packages"
scripts/package.sh
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run asan
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run tsan -L concurrency
run aarch64
echo "=== fuzz"
scripts/fuzz.sh "${TOVI_FUZZ_SECONDS:-60}"
