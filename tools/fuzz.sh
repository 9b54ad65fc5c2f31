#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for SECONDS from its committed
# corpus in fuzz/corpus/<target>. New corpus entries go to a scratch
# directory, never into the committed corpus. Exits non-zero on any crash,
# sanitizer report, timeout or broken round trip.
#   tools/fuzz.sh [SECONDS]       default 60 per target
# A crash input lands in build-fuzz/artifacts/; replay it with
#   build-fuzz/fuzz_<target> build-fuzz/artifacts/<file>
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build-fuzz
targets=(manifest binalib elfsections)

cmake -S fuzz -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2

# Leaks are checked once, at exit, with Qt's own known leak suppressed; a check
# after every input would rescan memory on each repeated JSON key.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:quarantine_size_mb=64}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/fuzz/lsan.supp:print_suppressions=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
mkdir -p "$build/artifacts" "$build/logs"
# In memory where possible: the manifest and elfsections targets write a file per input.
scratch=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
trap 'rm -rf "$scratch"' EXIT

failed=0
for target in "${targets[@]}"; do
    mkdir -p "$scratch/$target"
    log="$build/logs/$target.log"
    # A target's own tokens where it has them, else the JSON ones.
    dict=fuzz/json.dict
    [ -f "fuzz/$target.dict" ] && dict=fuzz/$target.dict
    echo "== fuzz_$target for ${seconds}s (log: $log) =="
    # The scratch directory comes first: libFuzzer writes new entries there.
    if TMPDIR="$scratch" "$build/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -detect_leaks=0 \
        -dict="$dict" -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
        "$scratch/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
        grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$log" || true
    else
        failed=1
        echo "fuzz_$target FAILED; the end of its log:"
        tail -n 40 "$log"
    fi
done
exit "$failed"
