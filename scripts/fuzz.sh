#!/usr/bin/env bash
# fuzz.sh [-x NAME]... [SECONDS] [NAME...]: builds the libFuzzer targets
# (fuzz/fuzz_*.cpp) with clang and runs each NAME (default: every target but
# those excluded with -x) for SECONDS (default 60) from its seed corpus
# fuzz/<module>/corpus. New inputs go to a scratch corpus, so the seeds in
# the repository stay as they are; a crash leaves its input in
# build/fuzz/artifacts and fails the script. FUZZ_BUILD_DIR overrides the
# build directory.
set -euo pipefail
cd "$(dirname "$0")/.."

skip=()
while [ "${1:-}" = "-x" ]; do
    skip+=("$2")
    shift 2
done
seconds=${1:-60}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for src in fuzz/fuzz_*.cpp; do
        name=$(basename "$src" .cpp)
        [[ " ${skip[*]:-} " == *" $name "* ]] || targets+=("$name")
    done
fi
build=${FUZZ_BUILD_DIR:-build/fuzz}
cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build "$build" -j2

mkdir -p "$build/artifacts"
status=0
for name in "${targets[@]}"; do
    module=${name#fuzz_}
    module=${module%%_*}
    seeds=fuzz/$module/corpus
    scratch=$(mktemp -d)
    echo "=== $name: ${seconds}s"
    if ! "$build/$name" -max_total_time="$seconds" -max_len=4096 -timeout=20 -print_final_stats=1 \
         -artifact_prefix="$build/artifacts/$name-" "$scratch" "$seeds" 2>"$build/$name.log"; then
        tail -n 40 "$build/$name.log"
        status=1
    else
        grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$build/$name.log" || true
    fi
    rm -rf "$scratch"
done
exit $status
