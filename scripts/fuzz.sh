#!/usr/bin/env bash
# Builds the fuzz tree build-fuzz/ (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer; only the targets of Tests/Fuzz and what they
# link) and runs every target, one after the other, for N seconds on a
# scratch copy of its corpus (Tests/Fuzz/corpus/<target>), with its
# dictionary (Tests/Fuzz/dict/<target>.dict) when there is one. The
# committed corpus only grows by hand: copy from the scratch folder what is
# worth keeping.
#
#   scripts/fuzz.sh [--seconds N] [--target NAME]... [--no-build] [--keep DIR]
#
# Prints, per target, the executions, coverage, corpus size and the verdict;
# exits non-zero when any target crashed, leaked, timed out, ran out of
# memory or made a sanitizer report. Its report and the input that caused
# it are kept in the scratch folder (named at the end).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

SECONDS_PER_TARGET=60
BUILD=1
KEEP=""
TARGETS=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds)
            SECONDS_PER_TARGET="${2:?--seconds needs a number}"
            shift 2 ;;
        --target)
            TARGETS+=("${2:?--target needs a name}")
            shift 2 ;;
        --no-build)
            BUILD=0
            shift ;;
        --keep)
            KEEP="${2:?--keep needs a folder}"
            shift 2 ;;
        -h|--help)
            sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'
            exit 0 ;;
        *)
            echo "fuzz.sh: unknown argument $1 (see --help)" >&2
            exit 2 ;;
    esac
done
if ! [[ "$SECONDS_PER_TARGET" =~ ^[0-9]+$ ]] || [ "$SECONDS_PER_TARGET" -lt 1 ]; then
    echo "fuzz.sh: --seconds needs a whole number of seconds, 1 or more" >&2
    exit 2
fi

BUILD_DIR="$ROOT/build-fuzz"
CXX_COMPILER="${VELORANE_FUZZ_CXX:-clang++-14}"
JOBS="${VELORANE_JOBS:-$(nproc)}"

if [ "$BUILD" -eq 1 ]; then
    started=$(date +%s)
    echo "== configure build-fuzz"
    cmake -S "$ROOT" -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_COMPILER="$CXX_COMPILER" -DVELORANE_FUZZ=ON \
        -DVELORANE_BUILD_TESTS=OFF -DVELORANE_BUILD_BENCHMARKS=OFF -DVELORANE_BUILD_TOOLS=OFF \
        >/dev/null
    echo "== build build-fuzz"
    cmake --build "$BUILD_DIR" -j "$JOBS" --target fuzz-targets
    echo "fuzz.sh: build took $(( $(date +%s) - started )) s"
fi

if [ ${#TARGETS[@]} -eq 0 ]; then
    for binary in "$BUILD_DIR"/bin/fuzz_*; do
        [ -x "$binary" ] && TARGETS+=("$(basename "$binary" | sed 's/^fuzz_//')")
    done
fi
if [ ${#TARGETS[@]} -eq 0 ]; then
    echo "fuzz.sh: no fuzz targets in $BUILD_DIR/bin" >&2
    exit 1
fi

SCRATCH="${KEEP:-$(mktemp -d "${TMPDIR:-/tmp}/velorane-fuzz.XXXXXX")}"
mkdir -p "$SCRATCH"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1"
export LSAN_OPTIONS="suppressions=$ROOT/scripts/lsan-suppressions.txt:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# The audio targets send to the driver's fixed port 9002 and to the relay's
# microphone port on loopback: they run in a network namespace of their own
# (when one can be made), so no driver on this machine hears them.
run_isolated() {
    case "$1" in
        */fuzz_audio_*)
            if unshare --net true 2>/dev/null; then
                unshare --net sh -c 'ip link set lo up && exec "$@"' sh "$@"
                return
            fi ;;
    esac
    "$@"
}

failed=0
printf '%-24s %12s %8s %8s %10s  %s\n' target executions cov ft corpus verdict
for target in "${TARGETS[@]}"; do
    binary="$BUILD_DIR/bin/fuzz_$target"
    if [ ! -x "$binary" ]; then
        echo "fuzz.sh: no target $target ($binary)" >&2
        failed=1
        continue
    fi
    work="$SCRATCH/$target"
    mkdir -p "$work/corpus" "$work/artifacts"
    if [ -d "$ROOT/Tests/Fuzz/corpus/$target" ]; then
        cp -a "$ROOT/Tests/Fuzz/corpus/$target/." "$work/corpus/"
    fi
    options=(-max_total_time="$SECONDS_PER_TARGET" -timeout=25 -rss_limit_mb=4096
             -print_final_stats=1 -artifact_prefix="$work/artifacts/")
    if [ -f "$ROOT/Tests/Fuzz/dict/$target.dict" ]; then
        options+=(-dict="$ROOT/Tests/Fuzz/dict/$target.dict")
    fi
    status=0
    run_isolated "$binary" "${options[@]}" "$work/corpus" >"$work/log" 2>&1 || status=$?

    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
    coverage=$(grep -Eo 'cov: [0-9]+' "$work/log" | tail -1 | grep -Eo '[0-9]+' || true)
    features=$(grep -Eo 'ft: [0-9]+' "$work/log" | tail -1 | grep -Eo '[0-9]+' || true)
    corpus=$(grep -Eo 'corp: [0-9]+/[0-9]+[a-zA-Z]*' "$work/log" | tail -1 | sed 's/corp: //' || true)
    verdict="ok"
    if [ "$status" -ne 0 ] || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|fuzz check failed' "$work/log"; then
        verdict="FAILED (exit $status): $(grep -E 'ERROR:|SUMMARY:|runtime error:|fuzz check failed' "$work/log" | head -1)"
        failed=1
    fi
    printf '%-24s %12s %8s %8s %10s  %s\n' "$target" "${executions:-?}" "${coverage:-?}" \
        "${features:-?}" "${corpus:-?}" "$verdict"
    if [ "$verdict" != "ok" ]; then
        echo "    log: $work/log"
        ls "$work/artifacts" | sed "s|^|    input: $work/artifacts/|"
    fi
done

echo "fuzz.sh: scratch corpora and logs in $SCRATCH"
if [ "$failed" -ne 0 ]; then
    echo "fuzz.sh: FAILED"
    exit 1
fi
echo "fuzz.sh: all ${#TARGETS[@]} targets ran ${SECONDS_PER_TARGET} s without a finding"
