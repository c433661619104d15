#!/usr/bin/env bash
# coverage.sh: builds the native variant with --coverage in build/coverage,
# runs its test suite and prints the line and branch coverage of src/.
# Not part of .ci/run: it is a measurement, not a gate.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build/coverage
# ccache would record sources relative to each object's folder, which gcovr
# cannot resolve: compile these objects afresh.
export CCACHE_DISABLE=1
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DTOVI_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j"$(nproc)" >/dev/null
find "$dir" -name '*.gcda' -delete
# A failing test still leaves its counts; the figures are what matter here.
ctest --test-dir "$dir" -j"$(nproc)" --timeout 300 >"$dir/ctest.log" 2>&1 || \
    echo "coverage: some tests failed, see $dir/ctest.log" >&2
# Branches the compiler adds for exceptions are not the code's own decisions.
# Forked children that die mid-write can leave a garbled call count behind:
# the line and branch figures do not depend on it.
gcovr --root . --filter 'src/' --exclude-throw-branches --gcov-ignore-parse-errors --print-summary \
    --object-directory "$dir" -o "$dir/coverage.txt" "$dir"
