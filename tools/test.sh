#!/usr/bin/env bash
# Builds Tavelin and runs the whole test suite with ctest; the plain build
# also checks that every planted fault of tests/mutants.sh still applies.
#   tools/test.sh                          plain build in build/
#   tools/test.sh BUILD_DIR SANITIZERS     e.g. build-asan address,undefined
#   tools/test.sh BUILD_DIR SANITIZERS RE  only the tests whose names match RE
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
sanitize=${2:-}
filter=${3:-}
jobs=$(nproc)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVELIN_SANITIZE="$sanitize" >/dev/null
cmake --build "$build" -j "$jobs"
if [ -n "$sanitize" ]; then
    # Any sanitizer report ends the test with a failure.
    export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
    export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/tests/lsan.supp:print_suppressions=0}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
    # Qt's own locks are futexes TSan cannot see: leave the accesses made
    # inside the uninstrumented Qt libraries alone, ours are still checked.
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1}
fi
ctest --test-dir "$build" --output-on-failure -j "$jobs" ${filter:+-R "$filter"}
# Once per CI run is enough: a fault a rename left behind fails here, not
# only in the long mutation run.
[ -n "$sanitize" ] || tests/mutants.sh --check
