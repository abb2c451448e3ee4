#!/bin/bash
# Builds every libFuzzer target with clang and runs each for a bounded time.
#   scripts/fuzz.sh [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
bash scripts/install-deps.sh fuzz build
build=build-fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
      -DCMAKE_CXX_COMPILER=clang++ -DCHMGR_FUZZ=ON -DCHMGR_TESTS=OFF > "$build.configure.log" 2>&1 \
    || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS=detect_leaks=0
failed=0
for src in fuzz/*_fuzz.cpp; do
    name=$(basename "$src" .cpp)
    corpus="$build/corpus/$name"
    mkdir -p "$corpus"
    seeds=()
    [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
    echo "--- $name for ${seconds}s"
    if ! "$build/$name" -max_total_time="$seconds" -print_final_stats=1 "$corpus" "${seeds[@]}" \
            > "$build/$name.log" 2>&1; then
        tail -40 "$build/$name.log"
        failed=1
    fi
    grep -E "^stat::number_of_executed_runs|^Done" "$build/$name.log" || true
done
exit "$failed"
