#!/usr/bin/env bash
# Shows the relay at work on one machine: kyr-sim plays the Kyr and serves a
# live H.264 test picture, client-sim plays the client application, starts
# the relay and asks it to pull frames, and the relay shows them in its
# window. driver-sim plays the local audio driver: its 1 kHz tone goes
# through the relay to kyr-sim, which writes what it heard to
# DIR/demo-audio.wav, and kyr-sim's 440 Hz microphone tone comes back to
# driver-sim, which writes it to DIR/demo-microphone.wav. With --audio the
# real audio driver takes driver-sim's place on a private headless PipeWire:
# paplay plays the tone into "Velorane Speaker" and parec records "Velorane
# Microphone". With a DISPLAY the window stays up for 30 s; without one the
# demo runs for about 6 s on a private Xvfb and saves a screenshot.
# With --virtual-monitor the relay runs as on a desktop: without -m, with
# VeloraneVirtualDisplay making the virtual monitor on a private Xvfb, and
# the screenshot shows that monitor's area.
set -euo pipefail

usage() {
    cat <<'EOF'
usage: scripts/demo.sh [--virtual-monitor] [--seconds N] [--build-dir DIR] [--audio]

Installs the packages, builds the tree, then runs kyr-sim, client-sim and
the relay together: the relay pulls a moving test picture from kyr-sim and
shows it in its window.

  --virtual-monitor
                   run the relay without -m, as on a desktop: on a private
                   Xvfb (a 1920x1080 output, a screen that may grow to
                   3200x1080) VeloraneVirtualDisplay adds the virtual
                   monitor VELORANE-2399-160-1902, the relay puts its
                   window there, and the monitor's area is saved to
                   DIR/demo-virtual-monitor.png
  --seconds N      how long the relay runs (default 30 with a DISPLAY,
                   6 without one or with --virtual-monitor)
  --build-dir DIR  build tree to use (default build)
  --audio          the whole audio chain with the real driver: a private
                   headless PipeWire, VeloraneAudioDriver, paplay of a
                   1 kHz tone into "Velorane Speaker", parec from "Velorane
                   Microphone" (instead of driver-sim)

Without DISPLAY a private Xvfb is started and a screenshot of its whole
screen is saved to DIR/demo.png while the relay runs. The speaker audio
kyr-sim heard is saved to DIR/demo-audio.wav and the microphone audio the
driver got (or, with --audio, parec recorded) to DIR/demo-microphone.wav.
The programs' output goes to DIR/demo-logs/.
EOF
}

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

seconds=""
build="build"
audio=0
virtual_monitor=0
while [[ $# -gt 0 ]]; do
    case "$1" in
    --virtual-monitor)
        virtual_monitor=1
        shift
        ;;
    --seconds)
        [[ $# -ge 2 && "$2" =~ ^[0-9]+$ && "$2" -ge 1 && "$2" -le 3600 ]] || {
            echo "demo: --seconds needs a number from 1 to 3600" >&2
            exit 2
        }
        seconds="$2"
        shift 2
        ;;
    --build-dir)
        [[ $# -ge 2 && -n "$2" ]] || {
            echo "demo: --build-dir needs a folder" >&2
            exit 2
        }
        build="$2"
        shift 2
        ;;
    --audio)
        audio=1
        shift
        ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "demo: unknown argument '$1' (see --help)" >&2
        exit 2
        ;;
    esac
done

password="demo"
tmp=""
kyr_pid=""
client_pid=""
driver_pid=""
display_pid=""
relay_pids=""
sleep_pid=""
paplay_pid=""
parec_pid=""

# A pause that a trapped signal interrupts at once (a foreground sleep would
# hold the trap back until it ends).
pause_for() {
    sleep "$1" &
    sleep_pid=$!
    wait "$sleep_pid"
    sleep_pid=""
}

# Stops what the demo started, by process id, children before parents.
cleanup() {
    local status=$?
    set +e
    [[ -n "$sleep_pid" ]] && kill "$sleep_pid" 2>/dev/null
    if [[ -n "$client_pid" ]]; then
        relay_pids="$relay_pids $(ps -o pid= --ppid "$client_pid" 2>/dev/null)"
        kill "$client_pid" 2>/dev/null
    fi
    for pid in $relay_pids; do
        kill "$pid" 2>/dev/null
    done
    [[ -n "$kyr_pid" ]] && kill "$kyr_pid" 2>/dev/null
    [[ -n "$paplay_pid" ]] && kill "$paplay_pid" 2>/dev/null
    [[ -n "$parec_pid" ]] && kill "$parec_pid" 2>/dev/null
    [[ -n "$driver_pid" ]] && kill "$driver_pid" 2>/dev/null
    # Asked to end, the display program takes its monitor away first.
    [[ -n "$display_pid" ]] && kill "$display_pid" 2>/dev/null
    for pid in $sleep_pid $client_pid $kyr_pid $paplay_pid $parec_pid $driver_pid $display_pid; do
        wait "$pid" 2>/dev/null
    done
    if declare -F velorane_stop_pipewire >/dev/null; then
        velorane_stop_pipewire
    fi
    for pid in $relay_pids; do
        # The relay is client-sim's child, not ours: poll, then insist.
        for _ in $(seq 50); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
        if kill -0 "$pid" 2>/dev/null; then
            kill -9 "$pid" 2>/dev/null
        fi
    done
    if declare -F velorane_stop_xvfb >/dev/null; then
        velorane_stop_xvfb
    fi
    [[ -n "$tmp" ]] && rm -rf "$tmp"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

echo "demo: installing packages"
scripts/install-deps.sh
echo "demo: building $build"
cmake -S . -B "$build" -G Ninja
cmake --build "$build"

bin="$build/bin"
programs=(kyr-sim client-sim driver-sim velorane-relay screen-grab)
[[ "$audio" -eq 1 ]] && programs+=(VeloraneAudioDriver)
[[ "$virtual_monitor" -eq 1 ]] && programs+=(VeloraneVirtualDisplay)
for program in "${programs[@]}"; do
    [[ -x "$bin/$program" ]] || {
        echo "demo: $bin/$program was not built" >&2
        exit 1
    }
done

tmp="$(mktemp -d "${TMPDIR:-/tmp}/velorane-demo.XXXXXX")"
scripts/make-test-cert.sh "$tmp/cert"
logs="$build/demo-logs"
mkdir -p "$logs"
if [[ -z "${XDG_RUNTIME_DIR:-}" ]]; then
    # Qt wants one; a private one keeps its warning out of the output.
    mkdir -m 700 "$tmp/xdg"
    export XDG_RUNTIME_DIR="$tmp/xdg"
fi

monitor="VELORANE-2399-160-1902"
window_name="Velorane demo"

# The monitor's rectangle as screen-grab takes it, WxH+X+Y, from
# xrandr's "1280/338x720/190+1920+0"; empty when it isn't there.
monitor_area() {
    xrandr --listmonitors 2>/dev/null | awk -v name="$monitor" '$2 == name { print $3 }' |
        sed -E 's#^([0-9]+)/[0-9]+x([0-9]+)/[0-9]+\+([0-9]+)\+([0-9]+)$#\1x\2+\3+\4#'
}

headless=0
if [[ "$virtual_monitor" -eq 1 ]]; then
    headless=1
    command -v xrandr >/dev/null 2>&1 || {
        echo "demo: xrandr not found: install the Debian package x11-xserver-utils" >&2
        exit 1
    }
    # The socket of the virtual display program goes to the runtime folder:
    # a private one, so that no other relay or program on this desktop meets
    # this run's.
    [[ -d "$tmp/xdg" ]] || mkdir -m 700 "$tmp/xdg"
    export XDG_RUNTIME_DIR="$tmp/xdg"
    # shellcheck source=lib/xvfb.sh
    source scripts/lib/xvfb.sh
    # Xvfb can't grow its screen past the size it starts with: it starts at
    # 3200x1080, then its one output is set to 1920x1080 and the screen to
    # the output's size, leaving room for the program to grow it.
    velorane_start_private_xvfb 3200x1080
    trap cleanup EXIT
    output="$(xrandr | awk '/ connected/ { print $1; exit }')"
    if ! xrandr --newmode demo-1920x1080 148.5 1920 2008 2052 2200 1080 1084 1089 1125 ||
        ! xrandr --addmode "$output" demo-1920x1080 ||
        ! xrandr --output "$output" --mode demo-1920x1080 --pos 0x0 --fb 1920x1080; then
        echo "demo: couldn't set the private X server's output to 1920x1080" >&2
        exit 1
    fi
    seconds="${seconds:-6}"
elif [[ -z "${DISPLAY:-}" ]]; then
    headless=1
    # shellcheck source=lib/xvfb.sh
    source scripts/lib/xvfb.sh
    velorane_start_xvfb
    # velorane_start_xvfb sets its own exit trap; cleanup stops Xvfb too.
    trap cleanup EXIT
    seconds="${seconds:-6}"
else
    seconds="${seconds:-30}"
fi

# Waits up to TENTHS tenths of a second until FILE holds TEXT, while the
# process PID lives; fails when it doesn't.
wait_for_output() {
    local file="$1" text="$2" pid="$3" tenths="$4"
    for _ in $(seq "$tenths"); do
        grep -q "$text" "$file" && return 0
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    grep -q "$text" "$file"
}

# kyr-sim listens on the base port plus 3; the relay also takes UDP ports
# base + 7 and + 8. Try random bases until kyr-sim can listen.
base=""
for _ in $(seq 20); do
    candidate=$((20000 + RANDOM % 40000))
    : >"$logs/kyr-sim.out"
    "$bin/kyr-sim" --base-port "$candidate" --password "$password" \
        --cert "$tmp/cert/kyr-sim.crt" --key "$tmp/cert/kyr-sim.key" \
        --record "$logs/kyr-sim.record" --time-limit $((seconds + 60)) \
        --speaker-wav "$build/demo-audio.wav" --mic-unsolicited 500 \
        >"$logs/kyr-sim.out" 2>"$logs/kyr-sim.err" &
    kyr_pid=$!
    if wait_for_output "$logs/kyr-sim.out" "listening on" "$kyr_pid" 100; then
        base="$candidate"
        break
    fi
    kill "$kyr_pid" 2>/dev/null || true
    wait "$kyr_pid" 2>/dev/null || true
    kyr_pid=""
done
[[ -n "$base" ]] || {
    echo "demo: kyr-sim found no free port (see $logs/kyr-sim.err)" >&2
    exit 1
}
echo "demo: kyr-sim serves the test picture on 127.0.0.1:$((base + 3))"

# The audio driver's control port is 9002 on every machine; when something
# else holds it the demo goes on without audio (driver-sim), or the driver
# goes on with the base port it was given (--audio).
if [[ "$audio" -eq 1 ]]; then
    # shellcheck source=lib/pipewire.sh
    source scripts/lib/pipewire.sh
    velorane_start_pipewire "$tmp/pipewire"
    echo "demo: a private headless PipeWire runs in $tmp/pipewire"
    velorane_pw_spawn "$logs/audio-driver.out" "$logs/audio-driver.err" \
        "$bin/VeloraneAudioDriver" --base-port "$base"
    driver_pid="$VELORANE_PW_STARTED"
    velorane_pw_wait_for pactl get-source-volume velorane-microphone || {
        echo "demo: the audio driver didn't start (see $logs/audio-driver.out)" >&2
        exit 1
    }
    velorane_pw_spawn "$tmp/microphone.raw" "$logs/parec.err" parec \
        --device=velorane-microphone --format=s16le --rate=48000 --channels=2 --raw \
        --latency-msec=20
    parec_pid="$VELORANE_PW_STARTED"
    echo "demo: VeloraneAudioDriver made \"Velorane Speaker\" and \"Velorane Microphone\"; parec records the microphone"
else
    "$bin/driver-sim" --kyr-port "$base" --tone 1000 --tone-seconds "$seconds" \
        --record "$logs/driver-sim.record" --mic-wav "$build/demo-microphone.wav" \
        --time-limit $((seconds + 30)) >"$logs/driver-sim.out" 2>"$logs/driver-sim.err" &
    driver_pid=$!
    for _ in $(seq 50); do
        grep -q "driver-sim: ready" "$logs/driver-sim.out" && break
        kill -0 "$driver_pid" 2>/dev/null || break
        sleep 0.1
    done
    if grep -q "driver-sim: ready" "$logs/driver-sim.out"; then
        echo "demo: driver-sim plays a 1 kHz tone into the relay"
    else
        echo "demo: driver-sim didn't start, no audio this time (see $logs/driver-sim.err)" >&2
        wait "$driver_pid" 2>/dev/null || true
        driver_pid=""
    fi
fi

# Without -m the relay asks the virtual display program for its monitor;
# the program runs first, as the client application would start it.
monitor_arguments=(-m)
if [[ "$virtual_monitor" -eq 1 ]]; then
    monitor_arguments=(--width 1280 --height 720)
    "$bin/VeloraneVirtualDisplay" >"$logs/virtual-display.out" 2>&1 &
    display_pid=$!
    wait_for_output "$logs/virtual-display.out" "Serving VIRTUAL_MONITOR_SERVER" \
        "$display_pid" 100 || {
        echo "demo: VeloraneVirtualDisplay didn't start (see $logs/virtual-display.out)" >&2
        exit 1
    }
    echo "demo: VeloraneVirtualDisplay serves the virtual monitor on display $DISPLAY"
fi

# A private TMPDIR holds this run's VELORANE_RELAY socket.
mkdir -p "$tmp/run"
echo "demo: the relay runs for $seconds s on display $DISPLAY"
TMPDIR="$tmp/run" "$bin/client-sim" --record "$logs/client-sim.record" \
    --time-limit $((seconds + 20)) \
    --send start-scrape --send "wait:$((seconds * 1000))" --send kill -- \
    "$bin/velorane-relay" -t "${monitor_arguments[@]}" --kyrIp 127.0.0.1 --relayPort "$base" \
    --relayPassword "$password" --name "$window_name" \
    >"$logs/client-sim.out" 2>"$logs/client-sim.err" &
client_pid=$!

if [[ "$audio" -eq 1 ]]; then
    # Once the relay has named itself to the driver, a tone a little shorter
    # than the run goes into "Velorane Speaker" the way any application
    # plays.
    for _ in $(seq 150); do
        grep -q "Relay at base port $base" "$logs/audio-driver.out" && break
        sleep 0.1
    done
    tone_seconds=$((seconds > 3 ? seconds - 2 : 1))
    sox -q -n -r 48000 -c 2 -b 16 "$tmp/tone.wav" synth "$tone_seconds" sine 1000 vol 0.3
    velorane_pw_spawn /dev/null "$logs/paplay.err" paplay --device=velorane-speaker "$tmp/tone.wav"
    paplay_pid="$VELORANE_PW_STARTED"
    echo "demo: paplay plays a 1 kHz tone into \"Velorane Speaker\" for $tone_seconds s"
fi

if [[ "$virtual_monitor" -eq 1 ]]; then
    # Leave the relay time to connect, follow the monitor and paint, then
    # grab the monitor's area while it still runs.
    grab_after=$((seconds > 2 ? seconds - 1 : 1))
    pause_for "$grab_after"
    area="$(monitor_area)"
    if [[ -z "$area" ]]; then
        echo "demo: the virtual monitor $monitor didn't appear (see $logs/)" >&2
    elif ! kill -0 "$client_pid" 2>/dev/null; then
        echo "demo: the relay ended before the screenshot (see $logs/)" >&2
    else
        echo "demo: the virtual monitor $monitor is at $area"
        window="$(xwininfo -name "$window_name" 2>/dev/null |
            awk '/Absolute upper-left X:/ { x = $4 } /Absolute upper-left Y:/ { y = $4 }
                 /Width:/ { w = $2 } /Height:/ { h = $2 }
                 END { if (w) printf "%sx%s+%s+%s", w, h, x, y }')"
        echo "demo: the relay's window is at ${window:-nowhere to be seen}"
        "$bin/screen-grab" --area "$area" "$build/demo-virtual-monitor.png" >/dev/null
        echo "demo: screenshot of the virtual monitor saved to $build/demo-virtual-monitor.png"
    fi
elif [[ "$headless" -eq 1 ]]; then
    # Leave the relay time to connect and paint, then grab the screen while
    # it still runs.
    grab_after=$((seconds > 2 ? seconds - 1 : 1))
    pause_for "$grab_after"
    if kill -0 "$client_pid" 2>/dev/null; then
        "$bin/screen-grab" "$build/demo.png" >/dev/null
        echo "demo: screenshot saved to $build/demo.png"
    else
        echo "demo: the relay ended before the screenshot (see $logs/)" >&2
    fi
fi

status=0
wait "$client_pid" || status=$?
client_pid=""
relay_pids=""
echo "demo: relay exited with code $status (output in $logs/)"
if [[ "$virtual_monitor" -eq 1 ]]; then
    # The relay's end asked the program to take the monitor down.
    if [[ -z "$(monitor_area)" ]]; then
        echo "demo: the virtual monitor is gone again"
    else
        echo "demo: the virtual monitor is still there after the relay's end" >&2
    fi
fi
if [[ "$audio" -eq 1 ]]; then
    # parec ends cleanly on SIGTERM (a background job of a script ignores
    # SIGINT), having written what it recorded.
    kill "$paplay_pid" "$parec_pid" 2>/dev/null || true
    kill "$driver_pid" 2>/dev/null || true
    for pid in $paplay_pid $parec_pid $driver_pid; do
        wait "$pid" 2>/dev/null || true
    done
    paplay_pid=""
    parec_pid=""
    driver_pid=""
    velorane_stop_pipewire
    sox -q -t raw -r 48000 -e signed -b 16 -c 2 "$tmp/microphone.raw" "$build/demo-microphone.wav"
    packets=$(grep -c "^speaker stamp=" "$logs/kyr-sim.record" || true)
    echo "demo: kyr-sim heard $packets speaker packets from the driver; it wrote what it heard to $build/demo-audio.wav"
    echo "demo: parec recorded the Kyr's microphone from \"Velorane Microphone\" in $build/demo-microphone.wav"
elif [[ -n "$driver_pid" ]]; then
    # driver-sim writes its microphone WAV out when it is told to stop.
    kill "$driver_pid" 2>/dev/null || true
    wait "$driver_pid" 2>/dev/null || true
    driver_pid=""
    packets=$(grep -c "^speaker stamp=" "$logs/kyr-sim.record" || true)
    echo "demo: kyr-sim heard $packets speaker packets; it wrote what it heard to $build/demo-audio.wav"
    echo "demo: the driver got the Kyr's microphone tone in $build/demo-microphone.wav"
fi
exit "$status"
