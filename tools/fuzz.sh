#!/usr/bin/env bash
# Builds the libFuzzer targets of the file readers (clang, ASan, UBSan) and runs
# each for SECONDS seconds (default 60) or RUNS executions, whichever ends
# first, starting from the kept corpus.  New inputs go to build-fuzz/corpus/,
# crashes to build-fuzz/crashes/.
#   tools/fuzz.sh [SECONDS] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
vela_build_packages
vela_ensure_packages clang libclang-rt-dev libomp-dev

seconds=${1:-60}
runs=${2:--1}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(vela_jobs)" --target fuzz_image fuzz_tracks fuzz_config fuzz_png fuzz_jpeg

passed=0
failed=0
for reader in image tracks config png jpeg; do
    work=build-fuzz/corpus/$reader
    crashes=build-fuzz/crashes/$reader
    log=build-fuzz/fuzz_$reader.log
    rm -rf "$crashes"
    mkdir -p "$work" "$crashes"
    echo "== fuzz_$reader: ${seconds}s"
    ok=true
    build-fuzz/tests/fuzz/targets/fuzz_$reader "$work" tests/fuzz/corpus/$reader \
        -max_total_time="$seconds" -runs="$runs" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$crashes/" >"$log" 2>&1 || ok=false
    grep -E '^(stat::number_of_executed_units|==[0-9]+==|SUMMARY)' "$log" || true
    if [ -n "$(ls -A "$crashes")" ] || [ "$ok" = false ]; then
        echo "fuzz_$reader failed (log: $log, inputs: $crashes/)" >&2
        failed=$((failed + 1))
    else
        passed=$((passed + 1))
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" = 0 ]
