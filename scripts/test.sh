#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite three times:
#   build/       the normal tree, every test;
#   build-asan/  AddressSanitizer + UndefinedBehaviorSanitizer, every test;
#   build-tsan/  ThreadSanitizer, the tests of code that doesn't use Qt;
# then builds the fuzz tree build-fuzz/ and gives every fuzz target a short
# smoke run on its corpus, two at a time (VELORANE_FUZZ_SMOKE_SECONDS each,
# default 10; 0 leaves the fuzz tree out). GUI tests get a private Xvfb when no DISPLAY
# is set. Exits non-zero on any failure; the last lines are CTest's own
# summary, or, when the smoke runs find something, the fuzz script's.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

JOBS="${VELORANE_JOBS:-$(nproc)}"
CTEST_JOBS="${VELORANE_CTEST_JOBS:-$JOBS}"

"$ROOT/scripts/install-deps.sh"

# shellcheck source=scripts/lib/xvfb.sh
source "$ROOT/scripts/lib/xvfb.sh"
velorane_start_xvfb

configure_and_build() {
    local dir="$1"
    shift
    echo "== configure $dir"
    cmake -S "$ROOT" -B "$ROOT/$dir" -G Ninja "$@" >/dev/null
    echo "== build $dir"
    cmake --build "$ROOT/$dir" -j "$JOBS"
}

run_suite() {
    local dir="$1"
    shift
    echo "== test $dir"
    ctest --test-dir "$ROOT/$dir" --output-on-failure -j "$CTEST_JOBS" "$@"
}

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export LSAN_OPTIONS="suppressions=$ROOT/scripts/lsan-suppressions.txt:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite build

configure_and_build build-asan -DCMAKE_BUILD_TYPE=Debug -DVELORANE_SANITIZE=address,undefined \
    -DVELORANE_BUILD_BENCHMARKS=OFF
run_suite build-asan

configure_and_build build-tsan -DCMAKE_BUILD_TYPE=Debug -DVELORANE_SANITIZE=thread \
    -DVELORANE_QT=OFF -DVELORANE_BUILD_BENCHMARKS=OFF -DVELORANE_BUILD_TOOLS=OFF

# The fuzz smoke runs: any crash, leak or sanitizer report fails the script.
# They run before the last suite, so that CTest's summary stays last; two
# at a time, which keeps the step near a minute and a half for the budget.
FUZZ_SMOKE_SECONDS="${VELORANE_FUZZ_SMOKE_SECONDS:-10}"
if [ "$FUZZ_SMOKE_SECONDS" -gt 0 ]; then
    echo "== fuzz smoke runs, ${FUZZ_SMOKE_SECONDS} s each, two at a time"
    "$ROOT/scripts/fuzz.sh" --seconds "$FUZZ_SMOKE_SECONDS" --jobs 2
fi

run_suite build-tsan -L nonqt
