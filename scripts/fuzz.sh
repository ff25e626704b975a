#!/usr/bin/env bash
# Builds the fuzz tree build-fuzz/ (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer; only the targets of Tests/Fuzz and what they
# link) and runs every target for N seconds (or until it has run R inputs,
# whichever comes first) on a scratch copy of its corpus
# (Tests/Fuzz/corpus/<target>), with its dictionary
# (Tests/Fuzz/dict/<target>.dict) and its own libFuzzer flags
# (Tests/Fuzz/options/<target>.options) when there are; J targets at a time.
# The committed corpus only grows by hand: copy from the scratch folder
# what is worth keeping.
#
#   scripts/fuzz.sh [--seconds N] [--runs R] [--jobs J] [--target NAME]...
#                   [--no-build] [--keep DIR]
#
# Prints, per target as it ends, the executions, their rate, the seconds,
# coverage, corpus, peak memory and the verdict, and all of them again in
# order at the end; exits non-zero when any target crashed, leaked, timed
# out, ran out of memory or made a sanitizer report. Its report and the
# input that caused it are kept in the scratch folder (named at the end).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

SECONDS_PER_TARGET=60
RUNS=0
PARALLEL=1
BUILD=1
KEEP=""
TARGETS=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds)
            SECONDS_PER_TARGET="${2:?--seconds needs a number}"
            shift 2 ;;
        --runs)
            RUNS="${2:?--runs needs a number}"
            shift 2 ;;
        --jobs)
            PARALLEL="${2:?--jobs needs a number}"
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
            sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'
            exit 0 ;;
        *)
            echo "fuzz.sh: unknown argument $1 (see --help)" >&2
            exit 2 ;;
    esac
done
for pair in "--seconds:$SECONDS_PER_TARGET" "--runs:$RUNS" "--jobs:$PARALLEL"; do
    value="${pair#*:}"
    if ! [[ "$value" =~ ^[0-9]+$ ]]; then
        echo "fuzz.sh: ${pair%%:*} needs a whole number" >&2
        exit 2
    fi
done
if [ "$SECONDS_PER_TARGET" -lt 1 ] || [ "$PARALLEL" -lt 1 ]; then
    echo "fuzz.sh: --seconds and --jobs need 1 or more (--runs 0 means no limit)" >&2
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

# The audio targets send to the driver's fixed port 9002, to the relay's
# microphone port and to base ports the input names, on loopback: they run
# in a network namespace of their own (when one can be made), so no driver
# or relay on this machine hears them.
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

LINE_FORMAT='%-24s %12s %8s %7s %6s %7s %12s %7s  %s\n'

# Runs one target and writes its line to $SCRATCH/<target>/result; its exit
# status says whether it found anything.
run_target() {
    local target="$1"
    local binary="$BUILD_DIR/bin/fuzz_$target"
    local work="$SCRATCH/$target"
    mkdir -p "$work/corpus" "$work/artifacts"
    rm -f "$work/result"
    if [ ! -x "$binary" ]; then
        printf "$LINE_FORMAT" "$target" - - - - - - - "FAILED: no $binary" >"$work/result"
        cat "$work/result"
        return 1
    fi
    if [ -d "$ROOT/Tests/Fuzz/corpus/$target" ]; then
        cp -a "$ROOT/Tests/Fuzz/corpus/$target/." "$work/corpus/"
    fi
    local options=(-max_total_time="$SECONDS_PER_TARGET" -timeout=25 -rss_limit_mb=4096
                   -print_final_stats=1 -artifact_prefix="$work/artifacts/")
    if [ "$RUNS" -gt 0 ]; then
        options+=(-runs="$RUNS")
    fi
    if [ -f "$ROOT/Tests/Fuzz/dict/$target.dict" ]; then
        options+=(-dict="$ROOT/Tests/Fuzz/dict/$target.dict")
    fi
    # A target's own flags (Tests/Fuzz/options/<target>.options, one per
    # line, # for comments) come last and so win over the ones above.
    if [ -f "$ROOT/Tests/Fuzz/options/$target.options" ]; then
        local flag
        while read -r flag; do
            case "$flag" in ''|'#'*) continue ;; esac
            options+=("$flag")
        done <"$ROOT/Tests/Fuzz/options/$target.options"
    fi
    local status=0
    local started ended
    started=$(date +%s.%N)
    run_isolated "$binary" "${options[@]}" "$work/corpus" >"$work/log" 2>&1 || status=$?
    ended=$(date +%s.%N)

    local executions rate elapsed coverage features corpus rss verdict
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
    # From the wall clock: libFuzzer's own rate counts whole seconds, 0 for
    # a run that --runs ends within the first.
    elapsed=$(awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.1f", b - a }')
    if [ -n "$executions" ]; then
        rate=$(awk -v n="$executions" -v a="$started" -v b="$ended" \
            'BEGIN { printf "%d", (b > a) ? n / (b - a) : 0 }')
    fi
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$work/log" | tail -1)
    coverage=$(grep -Eo 'cov: [0-9]+' "$work/log" | tail -1 | grep -Eo '[0-9]+' || true)
    features=$(grep -Eo 'ft: [0-9]+' "$work/log" | tail -1 | grep -Eo '[0-9]+' || true)
    corpus=$(grep -Eo 'corp: [0-9]+/[0-9]+[a-zA-Z]*' "$work/log" | tail -1 | sed 's/corp: //' || true)
    verdict="ok"
    if [ "$status" -ne 0 ] || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|fuzz check failed' "$work/log"; then
        verdict="FAILED (exit $status): $(grep -E 'ERROR:|SUMMARY:|runtime error:|fuzz check failed' "$work/log" | head -1 || true)"
    fi
    {
        printf "$LINE_FORMAT" "$target" "${executions:-?}" "${rate:-?}" "$elapsed" \
            "${coverage:-?}" "${features:-?}" "${corpus:-?}" "${rss:+${rss}MB}" "$verdict"
        if [ "$verdict" != "ok" ]; then
            echo "    log: $work/log"
            ls "$work/artifacts" | sed "s|^|    input: $work/artifacts/|"
        fi
    } >"$work/result"
    cat "$work/result"
    [ "$verdict" = "ok" ]
}

HEADER=$(printf "$LINE_FORMAT" target executions exec/s seconds cov ft corpus rss verdict)
echo "fuzz.sh: ${#TARGETS[@]} targets, ${SECONDS_PER_TARGET} s$( [ "$RUNS" -gt 0 ] && echo " or $RUNS runs") each, $PARALLEL at a time; load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$HEADER"
running=0
for target in "${TARGETS[@]}"; do
    if [ "$running" -ge "$PARALLEL" ]; then
        wait -n || true
        running=$((running - 1))
    fi
    run_target "$target" &
    running=$((running + 1))
done
wait || true

failed=0
echo "== summary, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$HEADER"
for target in "${TARGETS[@]}"; do
    result="$SCRATCH/$target/result"
    if [ -f "$result" ]; then
        cat "$result"
        grep -q "FAILED" "$result" && failed=1
    else
        printf "$LINE_FORMAT" "$target" - - - - - - - "FAILED: no result"
        failed=1
    fi
done

echo "fuzz.sh: scratch corpora and logs in $SCRATCH"
if [ "$failed" -ne 0 ]; then
    echo "fuzz.sh: FAILED"
    exit 1
fi
echo "fuzz.sh: all ${#TARGETS[@]} targets ran without a finding"
