#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets (fuzz/fuzz_*.cpp) with
# clang and runs each for SECONDS (default 60) from its seed corpus
# fuzz/<module>/corpus; a target whose source has a line "// fuzz-seconds: N"
# runs at most N seconds (0: built, not run). New inputs go to a scratch corpus, so the seeds in
# the repository stay as they are; a crash leaves its input in
# build/fuzz/artifacts and fails the script. FUZZ_BUILD_DIR overrides the
# build directory.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=${FUZZ_BUILD_DIR:-build/fuzz}
cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build "$build" -j2

mkdir -p "$build/artifacts"
status=0
for src in fuzz/fuzz_*.cpp; do
    name=$(basename "$src" .cpp)
    module=${name#fuzz_}
    module=${module%%_*}
    seeds=fuzz/$module/corpus
    scratch=$(mktemp -d)
    limit=$(sed -n 's|^// fuzz-seconds: \([0-9][0-9]*\)$|\1|p' "$src")
    if [ "$limit" = 0 ]; then
        echo "=== $name: not run (its source says fuzz-seconds: 0)"
        rm -rf "$scratch"
        continue
    fi
    run_for=$seconds
    if [ -n "$limit" ] && [ "$limit" -lt "$seconds" ]; then run_for=$limit; fi
    echo "=== $name: ${run_for}s"
    if ! "$build/$name" -max_total_time="$run_for" -max_len=4096 -timeout=20 -print_final_stats=1 \
         -artifact_prefix="$build/artifacts/$name-" "$scratch" "$seeds" 2>"$build/$name.log"; then
        tail -n 40 "$build/$name.log"
        status=1
    else
        grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$build/$name.log" || true
    fi
    rm -rf "$scratch"
done
exit $status
