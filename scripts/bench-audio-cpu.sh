#!/usr/bin/env bash
# The relay's CPU per second of two-way audio: kyr-sim serves the
# microphone and takes the speaker packets, driver-sim plays a tone, the
# relay runs over TLS without a video pull. The relay's user and system time
# over a 10 s window is read from /proc, once with the audio running and
# once with no driver and no microphone (the idle relay), three runs each.
#   scripts/bench-audio-cpu.sh [build-dir]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bin="$root/${1:-build}/bin"
tmp="$(mktemp -d "${TMPDIR:-/tmp}/velorane-audio-bench.XXXXXX")"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$tmp"
}
trap cleanup EXIT
"$root/scripts/make-test-cert.sh" "$tmp/cert" >/dev/null
export XDG_RUNTIME_DIR="$tmp" TMPDIR="$tmp" QT_QPA_PLATFORM=offscreen
export XDG_DATA_HOME="$tmp/data"
ticks=$(getconf CLK_TCK)

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

run() {
    local audio="$1" base=$((20000 + RANDOM % 30000))
    local kyr_options=(--base-port "$base" --password bench --cert "$tmp/cert/kyr-sim.crt"
        --key "$tmp/cert/kyr-sim.key" --record "$tmp/kyr.rec" --time-limit 40)
    if [[ "$audio" == yes ]]; then
        kyr_options+=(--mic-unsolicited 300)
    fi
    "$bin/kyr-sim" "${kyr_options[@]}" >"$tmp/kyr.out" 2>&1 &
    pids+=($!)
    sleep 1
    if [[ "$audio" == yes ]]; then
        "$bin/driver-sim" --kyr-port "$base" --tone 1000 --tone-seconds 30 \
            --record "$tmp/driver.rec" --time-limit 40 >"$tmp/driver.out" 2>&1 &
        pids+=($!)
    fi
    "$bin/client-sim" --record "$tmp/client.rec" --send wait:20000 --send kill --time-limit 40 -- \
        "$bin/velorane-relay" -t -m --kyrIp 127.0.0.1 --relayPort "$base" --relayPassword bench \
        >"$tmp/client.out" 2>&1 &
    pids+=($!)
    local relay=""
    for _ in $(seq 50); do
        relay=$(pgrep -n -f "^$bin/velorane-relay -t -m --kyrIp 127.0.0.1 --relayPort $base" || true)
        [[ -n "$relay" ]] && break
        sleep 0.1
    done
    sleep 5
    local before after
    before=$(cpu_ticks "$relay")
    sleep 10
    after=$(cpu_ticks "$relay")
    awk -v d=$((after - before)) -v t="$ticks" 'BEGIN { printf "%.1f\n", d * 1000 / t / 10 }'
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    pids=()
}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
for audio in yes no; do
    figures=()
    for _ in 1 2 3; do
        figures+=("$(run "$audio")")
    done
    echo "audio $audio: relay CPU ms per second: ${figures[*]}"
done
