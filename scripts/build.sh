#!/usr/bin/env bash
# build.sh VARIANT: configures and builds one variant in build/VARIANT.
#   native   optimised with debug information
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     ThreadSanitizer
#   aarch64  cross-built for the platform processor, tests run under qemu-aarch64
set -euo pipefail
cd "$(dirname "$0")/.."

variant=${1:-native}
args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$variant" in
    native) ;;
    asan) args+=(-DTOVI_SANITIZE=address,undefined -DTOVI_BUILD_BENCH=OFF) ;;
    tsan) args+=(-DTOVI_SANITIZE=thread -DTOVI_BUILD_BENCH=OFF) ;;
    aarch64) args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DTOVI_BUILD_BENCH=OFF) ;;
    *) echo "build.sh: unknown variant '$variant'" >&2; exit 2 ;;
esac
cmake -S . -B "build/$variant" "${args[@]}" >/dev/null
cmake --build "build/$variant" -j"$(nproc)"
