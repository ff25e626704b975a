#!/usr/bin/env bash
# The soak: the relay in its default mode for a long run (an hour by
# default) against the emulators, with faults on a schedule, while its
# resident memory, CPU, threads and open descriptors are sampled every 10 s.
# Fails on memory growth above 1 MiB per 10 minutes after the warm-up, on
# any growth of descriptors or threads, and on a crash. Not part of
# scripts/test.sh. See docs/reliability.md, section "Soak".
set -euo pipefail

# The whole script is one block, which bash reads to its end before running
# any of it: an edit of this file during an hour's run can't change it.
{

usage() {
    cat <<'EOF'
usage: scripts/soak.sh [--minutes N] [--cycle SEC] [--build-dir DIR] [--no-build]
                       [--plot FILE]

Runs the relay in its default mode (USB, virtual monitor, window) with video
at 1920x1080 and audio both ways for N minutes against kyr-sim --usb (the
Kyr), driver-sim (the audio driver), client-sim (the client application,
which starts the relay and asks for frames) and the real
VeloraneVirtualDisplay, on a private Xvfb, in a network namespace of its own
when the machine allows one. Every cycle of SEC seconds injects: a Kyr stall
of 10 s and its recovery, a burst of 20 garbage answers, the driver
vanishing for 15 s (past the relay's 10 s expiry) and returning, and a
restart of the virtual display process. The last cycle pulls the Kyr and
plugs it in again, after which the relay's link stays dead by design.

  --minutes N      length of the run, 3 to 600 (default 60)
  --cycle SEC      length of a fault cycle, a multiple of 10 from 60
                   (default 120; 60 for runs shorter than 20 minutes)
  --build-dir DIR  build tree (default build)
  --no-build       use the build tree as it is
  --plot FILE      where the plot goes (default docs/soak.png)

Samples go to DIR/soak/soak.csv, the faults to DIR/soak/events.csv, the
programs' output and records to DIR/soak/logs/, the summary to
DIR/soak/summary.txt. Exit code 0 when the run passes, 1 when it fails
(the reasons are printed), 2 for bad arguments.
EOF
}

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
# EPOCHREALTIME and awk's numbers with a decimal point, whatever the locale.
export LC_ALL=C

minutes=60
cycle=""
build="build"
do_build=1
plot="docs/soak.png"
original_args=("$@")
while [[ $# -gt 0 ]]; do
    case "$1" in
    --minutes)
        [[ $# -ge 2 && "$2" =~ ^[0-9]+$ && "$2" -ge 3 && "$2" -le 600 ]] || {
            echo "soak: --minutes needs a number from 3 to 600" >&2
            exit 2
        }
        minutes="$2"
        shift 2
        ;;
    --cycle)
        [[ $# -ge 2 && "$2" =~ ^[0-9]+$ && "$2" -ge 60 && $(($2 % 10)) -eq 0 ]] || {
            echo "soak: --cycle needs a multiple of 10 from 60" >&2
            exit 2
        }
        cycle="$2"
        shift 2
        ;;
    --build-dir)
        [[ $# -ge 2 && -n "$2" ]] || {
            echo "soak: --build-dir needs a folder" >&2
            exit 2
        }
        build="$2"
        shift 2
        ;;
    --no-build)
        do_build=0
        shift
        ;;
    --plot)
        [[ $# -ge 2 && -n "$2" ]] || {
            echo "soak: --plot needs a file" >&2
            exit 2
        }
        plot="$2"
        shift 2
        ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        echo "soak: unknown argument '$1' (see --help)" >&2
        exit 2
        ;;
    esac
done

total=$((minutes * 60))
if [[ -z "$cycle" ]]; then
    cycle=$((minutes >= 20 ? 120 : 60))
fi
# One cycle at the end is the unplug's; the others are fault cycles.
fault_cycles=$((total / cycle - 1))
if [[ "$fault_cycles" -lt 2 ]]; then
    echo "soak: $minutes minutes hold fewer than three cycles of $cycle s" >&2
    exit 2
fi
# The warm-up: whole cycles, 10 minutes' worth, but at most half of them.
warmup_cycles=$(((600 + cycle - 1) / cycle))
if [[ "$warmup_cycles" -gt $((fault_cycles / 2)) ]]; then
    warmup_cycles=$((fault_cycles / 2))
fi
warmup=$((warmup_cycles * cycle))
unplug_start=$((fault_cycles * cycle))

# Port 9002 of the audio driver is fixed, and every relay on the machine
# sends there; /var/tmp gets the relay's tunnel file. So the soak runs in a
# network and mount namespace of its own where it can: its relay and
# driver-sim then meet no one else's, and the machine's tunnel file stays as
# it is.
if [[ -z "${VELORANE_SOAK_NAMESPACE:-}" ]]; then
    if unshare --net --mount true 2>/dev/null; then
        export VELORANE_SOAK_NAMESPACE=private
        exec unshare --net --mount "$0" "${original_args[@]}"
    fi
    export VELORANE_SOAK_NAMESPACE=shared
    echo "soak: no private network namespace here; the run shares port 9002 and /var/tmp" >&2
elif [[ "$VELORANE_SOAK_NAMESPACE" == private ]]; then
    ip link set lo up
    mount --make-rprivate /
fi

if [[ "$do_build" -eq 1 ]]; then
    scripts/install-deps.sh
    echo "soak: building $build"
    if [[ ! -f "$build/build.ninja" ]]; then
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    ninja -C "$build" -j "${VELORANE_JOBS:-2}" velorane-relay VeloraneVirtualDisplay kyr-sim \
        client-sim driver-sim
fi
bin="$build/bin"
for program in velorane-relay VeloraneVirtualDisplay kyr-sim client-sim driver-sim; do
    [[ -x "$bin/$program" ]] || {
        echo "soak: $bin/$program was not built" >&2
        exit 1
    }
done
for tool in Xvfb xrandr gnuplot python3; do
    command -v "$tool" >/dev/null || {
        echo "soak: $tool is missing (scripts/install-deps.sh installs it)" >&2
        exit 1
    }
done

out="$build/soak"
logs="$out/logs"
rm -rf "$out"
mkdir -p "$logs"
csv="$out/soak.csv"
events="$out/events.csv"
summary="$out/summary.txt"

tmp="$(mktemp -d "${TMPDIR:-/tmp}/velorane-soak.XXXXXX")"
xvfb_pid=""
vdisplay_pid=""
kyr_pid=""
driver_pid=""
client_pid=""
relay_pid=""
sleep_pid=""

# Whether a process runs: kill -0 also holds for a child of ours that
# ended and wasn't waited for yet, a zombie.
is_alive() {
    local state
    [[ -n "$1" ]] || return 1
    state="$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)" || return 1
    [[ -n "$state" && "$state" != Z ]]
}

stop_pid() {
    local pid="$1"
    [[ -n "$pid" ]] || return 0
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 50); do
        is_alive "$pid" || break
        sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
}

# Stops what the soak started, by process id, the relay's client first.
# shellcheck disable=SC2317 # called by the trap
cleanup() {
    local status=$?
    set +e
    [[ -n "$sleep_pid" ]] && kill "$sleep_pid" 2>/dev/null
    stop_pid "$client_pid"
    if [[ -n "$relay_pid" ]] && kill -0 "$relay_pid" 2>/dev/null; then
        # The relay is client-sim's child, not ours: ask, then insist.
        kill "$relay_pid" 2>/dev/null
        for _ in $(seq 50); do
            kill -0 "$relay_pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -9 "$relay_pid" 2>/dev/null
    fi
    stop_pid "$driver_pid"
    stop_pid "$kyr_pid"
    stop_pid "$vdisplay_pid"
    stop_pid "$xvfb_pid"
    [[ -n "$tmp" ]] && rm -rf "$tmp"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# A pause that a trapped signal interrupts at once.
pause_for() {
    sleep "$1" &
    sleep_pid=$!
    wait "$sleep_pid" || true
    sleep_pid=""
}

# Waits up to $2 tenths of a second for the text $1 in file $3 while the
# process $4 lives.
wait_for_text() {
    local text="$1" tenths="$2" file="$3" pid="$4"
    for _ in $(seq "$tenths"); do
        grep -q -- "$text" "$file" 2>/dev/null && return 0
        is_alive "$pid" || return 1
        sleep 0.1
    done
    grep -q -- "$text" "$file" 2>/dev/null
}

failures=()
fail() {
    failures+=("$1")
    echo "soak: FAIL: $1" >&2
}

# Every program gets the same private folders: local sockets, the log
# files of the relay and of the display process, Qt's runtime folder.
mkdir -m 700 "$tmp/run"
mkdir -p "$tmp/tmp" "$tmp/home" "$tmp/data" "$tmp/var-tmp"
export XDG_RUNTIME_DIR="$tmp/run" TMPDIR="$tmp/tmp" HOME="$tmp/home" XDG_DATA_HOME="$tmp/data"
export QT_QPA_PLATFORM=xcb
if [[ "$VELORANE_SOAK_NAMESPACE" == private ]]; then
    mount --bind "$tmp/var-tmp" /var/tmp
fi
relay_logs="$XDG_DATA_HOME/Velorane/Client/Logs"

# A private Xvfb, wide enough for the 1920x1080 virtual monitor right of a
# 1920x1080 output (Xvfb can't grow its screen), and with -noreset, so that
# it keeps its monitors when the display process restarts.
unset DISPLAY
fifo="$tmp/xvfb-display"
mkfifo "$fifo"
Xvfb -displayfd 3 -screen 0 3840x1080x24 -nolisten tcp -noreset 3>"$fifo" \
    >"$logs/xvfb.out" 2>&1 &
xvfb_pid=$!
display_number=""
read -r -t 20 display_number <"$fifo" || true
[[ -n "$display_number" ]] || {
    echo "soak: the private X server did not start (see $logs/xvfb.out)" >&2
    exit 1
}
export DISPLAY=":$display_number"
xrandr --newmode soak_1920x1080 148.50 1920 2008 2052 2200 1080 1084 1089 1125 >/dev/null 2>&1 ||
    true
xrandr --addmode screen soak_1920x1080 >/dev/null 2>&1 || true
xrandr --fb 3840x1080 --output screen --mode soak_1920x1080 --pos 0x0 || {
    echo "soak: couldn't give the X server's output 1920x1080" >&2
    exit 1
}
echo "soak: private X server on $DISPLAY, screen 3840x1080, output 1920x1080"

base=$((20000 + RANDOM % 40000))
vdisplay_count=0

# The virtual display process, as the client application starts it before
# the relay (normal mode).
start_vdisplay() {
    vdisplay_count=$((vdisplay_count + 1))
    local output="$logs/vdisplay-$vdisplay_count.out"
    "$bin/VeloraneVirtualDisplay" >"$output" 2>&1 &
    vdisplay_pid=$!
    wait_for_text "Serving VIRTUAL_MONITOR_SERVER" 150 "$output" "$vdisplay_pid" || {
        fail "VeloraneVirtualDisplay didn't come up (see $output)"
        return 1
    }
}

# The two requests the relay sends at its start, as the client would send
# them to a display process it has restarted: SetResolution 1920x1080 tag
# 250, then CreateConference 1280x720, each on a connection of its own.
# Big-endian: int32 size, int16 command, int8 type 0, then the arguments.
recreate_monitor() {
    python3 - "$XDG_RUNTIME_DIR/VIRTUAL_MONITOR_SERVER" <<'EOF'
import socket, struct, sys
path = sys.argv[1]
requests = [
    struct.pack(">iHBiiB", 16, 0xA144, 0, 1920, 1080, 250),
    struct.pack(">iHBii", 15, 0xA13D, 0, 1280, 720),
]
for request in requests:
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as link:
        link.settimeout(10)
        link.connect(path)
        link.sendall(request)
        reply = b""
        while len(reply) < 11:
            chunk = link.recv(64)
            if not chunk:
                break
            reply += chunk
        if len(reply) < 11 or struct.unpack(">i", reply[7:11])[0] != 0:
            sys.exit("bad reply " + reply.hex())
EOF
}

start_vdisplay || exit 1

kyr_control="$tmp/kyr.ctl"
driver_control="$tmp/driver.ctl"
mkfifo "$kyr_control" "$driver_control"
limit=$((total + 600))
# kyr-sim records every request; the speaker packets (SpeakerData requests
# and what was decoded of them) alone would make that record hundreds of
# megabytes in an hour, so a filter keeps the rest.
kyr_record="$logs/kyr-sim.record"
mkfifo "$tmp/kyr-record"
grep --line-buffered -v -E '^(request 1403baea21ef0100|speaker )' <"$tmp/kyr-record" \
    >"$kyr_record" &
"$bin/kyr-sim" --usb --control "$kyr_control" --mic-unsolicited 3000 \
    --record "$tmp/kyr-record" --time-limit "$limit" \
    >"$logs/kyr-sim.out" 2>"$logs/kyr-sim.err" &
kyr_pid=$!
wait_for_text "usb testbed" 300 "$logs/kyr-sim.out" "$kyr_pid" || {
    echo "soak: kyr-sim --usb didn't start (see $logs/kyr-sim.err)" >&2
    exit 1
}
testbed="$(sed -n 's/^kyr-sim: usb testbed //p' "$logs/kyr-sim.out")"

"$bin/driver-sim" --kyr-port "$base" --tone 1000 --tone-seconds 5 --loop \
    --control "$driver_control" --time-limit "$limit" \
    --record "$logs/driver-sim.record" >"$logs/driver-sim.out" 2>"$logs/driver-sim.err" &
driver_pid=$!
wait_for_text "driver-sim: ready" 100 "$logs/driver-sim.out" "$driver_pid" || {
    echo "soak: driver-sim didn't start (see $logs/driver-sim.err)" >&2
    exit 1
}

# The schedule starts a fixed lead after the client; the client's kill
# comes a few seconds after the last sample.
lead=20
# client-sim waits at most an hour per action: the wait goes in pieces.
waits=()
for ((left = (lead + total + 5) * 1000; left > 0; left -= 3600000)); do
    waits+=(--send "wait:$((left < 3600000 ? left : 3600000))")
done
"$bin/client-sim" --record "$logs/client-sim.record" --time-limit $((lead + total + 120)) \
    --send start-scrape "${waits[@]}" --send kill -- \
    /usr/bin/env UMOCKDEV_DIR="$testbed" LD_PRELOAD=libumockdev-preload.so.0 \
    "$bin/velorane-relay" --kyrIp 127.0.0.1 --relayPort "$base" --width 1920 --height 1080 \
    --name "Velorane soak" >"$logs/client-sim.out" 2>"$logs/client-sim.err" &
client_pid=$!
start_epoch=${EPOCHREALTIME/./}
start_date="$(date -u '+%Y-%m-%d %H:%M UTC')"
start_load="$(cut -d' ' -f1-3 /proc/loadavg)"
for _ in $(seq 100); do
    relay_pid="$(pgrep -P "$client_pid" || true)"
    [[ -n "$relay_pid" ]] && break
    sleep 0.1
done
[[ -n "$relay_pid" ]] || {
    echo "soak: client-sim didn't start the relay (see $logs/client-sim.err)" >&2
    exit 1
}
echo "soak: relay $relay_pid, base port $base, $minutes min, cycles of $cycle s" \
    "($fault_cycles with faults, then the unplug), warm-up $warmup s"

relay_log() { cat "$relay_logs"/VeloraneConference_*.log 2>/dev/null || true; }

# Up within the lead: the link to the Kyr, frames flowing, the window on
# the virtual monitor.
ready=0
for _ in $(seq $((lead * 10 - 20))); do
    if relay_log | grep -q "Device connected!" &&
        grep -q "^request 9945febbf9d0" "$kyr_record" &&
        relay_log | grep -q "DisplayManager done"; then
        ready=1
        break
    fi
    is_alive "$relay_pid" || break
    sleep 0.1
done
[[ "$ready" -eq 1 ]] || {
    echo "soak: the relay wasn't up with frames and its window placed within $lead s" \
        "(see $logs/ and $relay_logs)" >&2
    exit 1
}

# Times on the run's clock: seconds since the schedule's start (t0).
t0=$((start_epoch + lead * 1000000))
now_ms() { echo $(((${EPOCHREALTIME/./} - t0) / 1000)); }

echo "seconds,event" >"$events"
event() { echo "$(awk -v ms="$(now_ms)" 'BEGIN { printf "%.1f", ms / 1000 }'),$1" >>"$events"; }

clk_tck="$(getconf CLK_TCK)"
echo "seconds,cycle,phase,rss_kb,cpu_ticks,cpu_percent,threads,fds" >"$csv"
last_ticks=""
last_ms=""
sample() {
    local ms rss threads ticks fds cpu
    ms="$(now_ms)"
    rss="$(awk '/^VmRSS:/ { print $2 }' "/proc/$relay_pid/status" 2>/dev/null)" || return 1
    threads="$(awk '/^Threads:/ { print $2 }' "/proc/$relay_pid/status" 2>/dev/null)" || return 1
    # utime and stime: fields 14 and 15, counted after the command's ")".
    ticks="$(sed 's/.*) //' "/proc/$relay_pid/stat" 2>/dev/null | awk '{ print $12 + $13 }')" ||
        return 1
    fds="$(find "/proc/$relay_pid/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)"
    [[ -n "$rss" && -n "$threads" && -n "$ticks" ]] || return 1
    cpu=""
    if [[ -n "$last_ticks" ]]; then
        cpu="$(awk -v t="$((ticks - last_ticks))" -v ms="$((ms - last_ms))" -v hz="$clk_tck" \
            'BEGIN { printf "%.1f", (ms > 0 ? 100 * t / hz / (ms / 1000) : 0) }')"
    fi
    last_ticks="$ticks"
    last_ms="$ms"
    # The second the sample was due at: rounded to the 10 s grid.
    # shellcheck disable=SC2017 # the division rounds down on purpose
    local seconds=$(((ms + 5000) / 10000 * 10))
    echo "$(awk -v ms="$ms" 'BEGIN { printf "%.1f", ms / 1000 }'),$((seconds / cycle)),$((seconds % cycle)),$rss,$ticks,$cpu,$threads,$fds" >>"$csv"
}

# Whether every program of the run still lives; names the first that
# doesn't. The display process is checked outside its restarts.
alive() {
    local name pid
    for name in relay client-sim kyr-sim driver-sim VeloraneVirtualDisplay Xvfb; do
        case "$name" in
        relay) pid="$relay_pid" ;;
        client-sim) pid="$client_pid" ;;
        kyr-sim) pid="$kyr_pid" ;;
        driver-sim) pid="$driver_pid" ;;
        VeloraneVirtualDisplay) pid="$vdisplay_pid" ;;
        Xvfb) pid="$xvfb_pid" ;;
        esac
        if ! is_alive "$pid"; then
            fail "$name (pid $pid) died at $(now_ms) ms into the schedule"
            return 1
        fi
    done
}

restart_vdisplay() {
    event vdisplay-restart
    stop_pid "$vdisplay_pid"
    vdisplay_pid=""
    start_vdisplay || return 1
    recreate_monitor >>"$logs/vdisplay-requests.out" 2>&1 || {
        fail "the restarted VeloraneVirtualDisplay refused the monitor (see $logs/)"
        return 1
    }
}

# One order down an emulator's control pipe. The emulator holds the pipe
# open, so the write doesn't wait, unless it has gone meanwhile.
order() {
    local pipe="$1" what="$2"
    # shellcheck disable=SC2016 # the inner shell expands them
    timeout 5 sh -c 'echo "$1" >"$2"' sh "$what" "$pipe" || {
        fail "couldn't give the order '$what' to $pipe"
        return 1
    }
    event "${what// /-}"
}

# The schedule: per fault cycle, offsets in seconds from its start. The
# stall lasts 10 s: the relay's exchange in flight times out after 5 s, and
# its next attempt is answered. The driver stays away 15 s, past the
# relay's 10 s expiry.
schedule=()
for ((k = 0; k < fault_cycles; k++)); do
    at=$((k * cycle))
    schedule+=("$((at + 5)) kyr stall"
        "$((at + 15)) kyr resume"
        "$((at + 25)) kyr garbage 20"
        "$((at + 27)) driver vanish"
        "$((at + 42)) driver return"
        "$((at + 47)) vdisplay restart")
done
schedule+=("$((unplug_start + 5)) kyr unplug" "$((unplug_start + 15)) kyr plug")

next_sample=0
index=0
status_line() {
    echo "soak: $(($(now_ms) / 1000)) s of $total: rss $(tail -1 "$csv" | cut -d, -f4) KiB," \
        "threads $(tail -1 "$csv" | cut -d, -f7), fds $(tail -1 "$csv" | cut -d, -f8)"
}
while :; do
    next_event=$((total + 1))
    if [[ "$index" -lt "${#schedule[@]}" ]]; then
        next_event="${schedule[$index]%% *}"
    fi
    if [[ "$next_sample" -gt "$total" && "$next_event" -gt "$total" ]]; then
        break
    fi
    due=$((next_sample <= next_event ? next_sample : next_event))
    wait_ms=$((due * 1000 - $(now_ms)))
    if [[ "$wait_ms" -gt 0 ]]; then
        pause_for "$(awk -v ms="$wait_ms" 'BEGIN { printf "%.3f", ms / 1000 }')"
    fi
    alive || break
    if [[ "$next_sample" -le "$next_event" ]]; then
        sample || {
            fail "couldn't read /proc/$relay_pid"
            break
        }
        if [[ $((next_sample % 300)) -eq 0 ]]; then
            status_line
        fi
        next_sample=$((next_sample + 10))
        continue
    fi
    read -r _ target what <<<"${schedule[$index]}"
    index=$((index + 1))
    case "$target" in
    kyr) order "$kyr_control" "$what" || break ;;
    driver) order "$driver_control" "$what" || break ;;
    vdisplay) restart_vdisplay || break ;;
    esac
done

echo "soak: schedule over; waiting for the client's kill"
if [[ "${#failures[@]}" -eq 0 ]]; then
    client_status=0
    for _ in $(seq 600); do
        is_alive "$client_pid" || break
        sleep 0.1
    done
    if is_alive "$client_pid"; then
        fail "the relay didn't end within 60 s of the client's kill"
    else
        wait "$client_pid" || client_status=$?
        client_pid=""
        relay_pid=""
        [[ "$client_status" -eq 0 ]] ||
            fail "the relay ended with code $client_status (client-sim: $(tail -1 "$logs/client-sim.out"))"
    fi
fi
stop_pid "$driver_pid"
driver_pid=""

# The relay's own words: it ended in order, and nothing aborted.
relay_log >"$logs/relay.log"
tail -1 "$logs/relay.log" | grep -q -- "----------------END----------------" ||
    fail "the relay's log doesn't end with its END line (see $logs/relay.log)"
if grep -n -E "terminate called|Aborted|Segmentation fault|AddressSanitizer|runtime error:|Assertion .* failed|relay crashed" \
    "$logs/relay.log" "$logs/client-sim.out" "$logs/client-sim.err" >"$out/aborts.txt"; then
    fail "an abort or crash was reported (see $out/aborts.txt)"
fi
# The faults took effect, and the relay came through each as it should:
# frames again after every stall; the driver's audio stopped after every
# vanishing (the 10 s expiry) and started on every return; the window
# placed on the virtual monitor again after every restart of the display
# process; and after the pull and the new plug no request reached the Kyr.
log_count() { grep -c $'\t'"$1" "$logs/relay.log" || true; }
recovered="$(awk '/^control resume$/ { open = 1; n++ } open && /^request 9945febbf9d0/ { ok++; open = 0 }
    END { print ok + 0 "/" n + 0 }' "$kyr_record")"
[[ "$recovered" == "$fault_cycles/$fault_cycles" ]] ||
    fail "frames came again after $recovered of the stalls"
stops="$(log_count $'Stop Audio\t')"
[[ "$stops" -eq "$fault_cycles" ]] ||
    fail "the relay stopped the driver's audio $stops times for $fault_cycles vanishings"
starts="$(log_count $'Start Audio\t')"
[[ "$starts" -ge $((fault_cycles + 1)) ]] ||
    fail "the relay started the driver's audio $starts times for $fault_cycles returns"
placed="$(log_count 'DisplayManager done: ')"
[[ "$placed" -ge $((fault_cycles + 1)) ]] ||
    fail "the window was placed on the virtual monitor $placed times for $fault_cycles restarts"
after_plug="$(awk '/^control plug$/ { seen = 1; next } seen && /^request / { n++ } END { print n + 0 }' \
    "$kyr_record")"
[[ "$after_plug" -eq 0 ]] ||
    fail "$after_plug requests reached the Kyr plugged in again (the link should stay dead)"

# The figures. Memory: least-squares slope of the samples from the end of
# the warm-up to the start of the unplug's cycle. Descriptors and threads:
# the samples at the start of a cycle, when every fault of the cycle before
# has settled, at the end of the warm-up and before the unplug.
awk -F, -v warmup="$warmup" -v last="$unplug_start" -v total="$total" -v cycle="$cycle" '
NR == 1 { next }
{
    # The sample meant for second s (samples are due every 10 s; a fault
    # that takes a moment can hold one back by a second or two).
    t = $1 + 0; s = int((t + 5) / 10) * 10
    if (first == "") { first = NR; rss0 = $4 }
    rssN = $4
    if ($6 != "" && $6 + 0 > peak) { peak = $6 + 0; peakAt = t }
    if ($7 + 0 > maxThreads) maxThreads = $7 + 0
    if ($8 + 0 > maxFds) maxFds = $8 + 0
    if (s >= warmup && s <= last) {
        n++; sx += t; sy += $4; sxx += t * t; sxy += t * $4
    }
    if (s == warmup) { wRss = $4; wThreads = $7; wFds = $8 }
    if (s == last) { lRss = $4; lThreads = $7; lFds = $8 }
    if (s == total) { eThreads = $7; eFds = $8 }
}
END {
    slope = (n > 1 && n * sxx - sx * sx != 0) ? (n * sxy - sx * sy) / (n * sxx - sx * sx) : 0
    printf "samples=%d\nfit_samples=%d\nrss_start_kb=%d\nrss_warmup_kb=%d\nrss_unplug_kb=%d\nrss_end_kb=%d\n", NR - 1, n, rss0, wRss, lRss, rssN
    printf "slope_kb_per_10min=%.1f\npeak_cpu=%.1f\npeak_cpu_at=%.0f\n", slope * 600, peak, peakAt
    printf "threads_warmup=%s\nthreads_unplug=%s\nthreads_end=%s\nthreads_max=%d\n", wThreads, lThreads, eThreads, maxThreads
    printf "fds_warmup=%s\nfds_unplug=%s\nfds_end=%s\nfds_max=%d\n", wFds, lFds, eFds, maxFds
}' "$csv" >"$out/figures.txt"
declare -A fig
while IFS='=' read -r key value; do
    fig[$key]="$value"
done <"$out/figures.txt"

if [[ -z "${fig[threads_warmup]:-}" || -z "${fig[threads_unplug]:-}" ]]; then
    fail "the run ended before its samples at ${warmup} s and ${unplug_start} s"
else
    awk -v s="${fig[slope_kb_per_10min]}" 'BEGIN { exit !(s > 1024) }' &&
        fail "memory grew ${fig[slope_kb_per_10min]} KiB per 10 minutes after the warm-up (limit 1024)"
    [[ "${fig[fds_unplug]}" -le "${fig[fds_warmup]}" ]] ||
        fail "descriptors grew from ${fig[fds_warmup]} to ${fig[fds_unplug]} between the end of the warm-up and the unplug"
    [[ "${fig[threads_unplug]}" -le "${fig[threads_warmup]}" ]] ||
        fail "threads grew from ${fig[threads_warmup]} to ${fig[threads_unplug]} between the end of the warm-up and the unplug"
fi

load="$(cut -d' ' -f1-3 /proc/loadavg)"
{
    echo "scripts/soak.sh --minutes $minutes --cycle $cycle, started $start_date," \
        "load average $start_load at the start, $load at the end"
    echo
    echo "| Figure | Value |"
    echo "|---|---|"
    echo "| Samples (every 10 s) | ${fig[samples]} (${fig[fit_samples]} in the fit, from $warmup s to $unplug_start s) |"
    echo "| Resident memory at the start | $((fig[rss_start_kb] / 1024)) MiB (${fig[rss_start_kb]} KiB) |"
    echo "| ... at the end of the warm-up ($warmup s) | $((fig[rss_warmup_kb] / 1024)) MiB (${fig[rss_warmup_kb]} KiB) |"
    echo "| ... before the unplug ($unplug_start s) | $((fig[rss_unplug_kb] / 1024)) MiB (${fig[rss_unplug_kb]} KiB) |"
    echo "| ... at the end | $((fig[rss_end_kb] / 1024)) MiB (${fig[rss_end_kb]} KiB) |"
    echo "| Memory slope after the warm-up | ${fig[slope_kb_per_10min]} KiB per 10 min (limit 1024) |"
    echo "| Peak CPU (10 s average, of one core) | ${fig[peak_cpu]} % at ${fig[peak_cpu_at]} s |"
    echo "| Descriptors: warm-up end, before the unplug, end, most | ${fig[fds_warmup]}, ${fig[fds_unplug]}, ${fig[fds_end]}, ${fig[fds_max]} |"
    echo "| Threads: warm-up end, before the unplug, end, most | ${fig[threads_warmup]}, ${fig[threads_unplug]}, ${fig[threads_end]}, ${fig[threads_max]} |"
    echo "| Faults | $(tail -n +2 "$events" | cut -d, -f2 | sort | uniq -c | awk '{ printf "%s%s x%d", sep, $2, $1; sep = ", " }') |"
    echo "| The relay came through | frames again after $recovered stalls; Stop Audio x$stops, Start Audio x$starts; window placed on the monitor x$placed; requests after the new plug: $after_plug |"
    echo "| Result | $([[ ${#failures[@]} -eq 0 ]] && echo pass || echo "FAIL: ${failures[*]}") |"
} >"$summary"
cat "$summary"

# The plot: memory over time with the faults marked, threads and
# descriptors below.
mkdir -p "$(dirname "$plot")"
for kind in stall garbage-20 vanish vdisplay-restart unplug; do
    awk -F, -v k="$kind" 'NR > 1 && $2 == k { print $1 / 60 }' "$events" >"$tmp/marks-$kind"
done
gnuplot <<EOF
set terminal pngcairo size 1200,800 font "sans,10"
set output "$plot"
set datafile separator ","
set multiplot layout 2,1 title "Velorane relay soak: $minutes min, cycles of $cycle s, $(date -u +%Y-%m-%d)"
set key outside right top
set grid
set lmargin 12
set rmargin 24
set xlabel "minutes"
set ylabel "resident memory (MiB)"
set xrange [0:$minutes]
stats "$csv" using (\$4 / 1024) nooutput
set yrange [STATS_min - 5 : STATS_max + 5]
set arrow from $warmup / 60.0, graph 0 to $warmup / 60.0, graph 1 nohead dt 2 lc rgb "black"
set label "end of warm-up" at $warmup / 60.0, graph 0.95 offset 0.5,0
plot "$csv" using (\$1 / 60):(\$4 / 1024) with lines lw 2 lc rgb "#1f4e9c" title "RSS", \
     "$tmp/marks-stall" using 1:(STATS_min - 4) with points pt 7 ps 0.8 lc rgb "#d62728" title "Kyr stall", \
     "$tmp/marks-garbage-20" using 1:(STATS_min - 3) with points pt 5 ps 0.8 lc rgb "#ff7f0e" title "garbage burst", \
     "$tmp/marks-vanish" using 1:(STATS_min - 2) with points pt 9 ps 1 lc rgb "#2ca02c" title "driver away 15 s", \
     "$tmp/marks-vdisplay-restart" using 1:(STATS_min - 1) with points pt 13 ps 1 lc rgb "#9467bd" title "display restart", \
     "$tmp/marks-unplug" using 1:(STATS_min - 4) with impulses lw 2 lc rgb "black" title "USB unplug"
unset arrow
unset label
set ylabel "count"
set yrange [0:*]
plot "$csv" using (\$1 / 60):7 with steps lw 2 lc rgb "#8c564b" title "threads", \
     "$csv" using (\$1 / 60):8 with steps lw 2 lc rgb "#17becf" title "descriptors"
unset multiplot
EOF
echo "soak: plot saved to $plot; samples in $csv, faults in $events"

if [[ "${#failures[@]}" -gt 0 ]]; then
    echo "soak: FAILED:" >&2
    printf '  %s\n' "${failures[@]}" >&2
    exit 1
fi
echo "soak: passed"
exit 0
}
