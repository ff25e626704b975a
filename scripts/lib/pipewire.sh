# Sourced by the scripts: a private headless PipeWire for the audio driver,
# with no sound card and no D-Bus: pipewire (its stock dummy driver clocks
# the graph), WirePlumber with the configuration in
# scripts/lib/headless-wireplumber, and pipewire-pulse for PulseAudio
# clients (paplay, parec). Everything lives in one folder: runtime folder
# (mode 0700), config, state and home. velorane_pw runs a command against
# it, velorane_pw_spawn starts one in the background; velorane_stop_pipewire
# stops the daemons by process id.

VELORANE_PW_LIB="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
VELORANE_PW_DIR=""
VELORANE_PW_PIDS=()
VELORANE_PW_STARTED=""

# True while the process runs. A stopped process that nobody has reaped
# yet is a zombie, which kill -0 still finds: its state says it has ended.
velorane_process_running() {
    local state
    state="$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)"
    [[ -n "$state" && "$state" != "Z" ]]
}

# The environment of the private PipeWire's clients, as arguments of env.
velorane_pw_environment() {
    VELORANE_PW_ENV=(-u PULSE_SERVER -u PULSE_RUNTIME_PATH -u PIPEWIRE_REMOTE
        -u PIPEWIRE_RUNTIME_DIR -u DISPLAY
        XDG_RUNTIME_DIR="$VELORANE_PW_DIR/run" XDG_CONFIG_HOME="$VELORANE_PW_DIR/config"
        XDG_STATE_HOME="$VELORANE_PW_DIR/state" HOME="$VELORANE_PW_DIR/home"
        DBUS_SESSION_BUS_ADDRESS=disabled:)
}

# Runs a command with the private PipeWire's environment.
velorane_pw() {
    velorane_pw_environment
    env "${VELORANE_PW_ENV[@]}" "$@"
}

# velorane_pw_spawn OUT ERR COMMAND...: starts a command with that
# environment in the background, its standard output and error to the files
# given; its process id in VELORANE_PW_STARTED. (A shell function run in
# the background is a subshell of its own: killing that would leave the
# command running. Here env, and then the command, take the id of the
# background job itself.)
velorane_pw_spawn() {
    local out="$1" err="$2"
    shift 2
    velorane_pw_environment
    env "${VELORANE_PW_ENV[@]}" "$@" >"$out" 2>"$err" &
    VELORANE_PW_STARTED=$!
}

# Waits up to 10 s until a command succeeds against the private PipeWire.
velorane_pw_wait_for() {
    local _
    for _ in $(seq 200); do
        velorane_pw "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

# velorane_start_pipewire DIR: starts the daemons with DIR as their folder
# (made here) and waits until PulseAudio clients get answers.
velorane_start_pipewire() {
    VELORANE_PW_DIR="$1"
    mkdir -p "$1/config" "$1/state" "$1/home"
    # pipewire-pulse makes run/pulse unless it is there, and gives up if it
    # appears in between (a pactl asking whether it is up yet makes it
    # too): made here first, nobody races.
    mkdir -m 700 "$1/run" "$1/run/pulse"
    cp -r "$VELORANE_PW_LIB/headless-wireplumber" "$1/config/wireplumber"
    velorane_pw_spawn "$1/pipewire.out" "$1/pipewire.err" pipewire
    VELORANE_PW_PIDS=("$VELORANE_PW_STARTED")
    if ! velorane_pw_wait_for pw-cli info 0; then
        echo "pipewire: the daemon didn't answer (see $1/pipewire.err)" >&2
        return 1
    fi
    velorane_pw_spawn "$1/wireplumber.out" "$1/wireplumber.err" wireplumber
    VELORANE_PW_PIDS+=("$VELORANE_PW_STARTED")
    velorane_pw_spawn "$1/pipewire-pulse.out" "$1/pipewire-pulse.err" pipewire-pulse
    VELORANE_PW_PIDS+=("$VELORANE_PW_STARTED")
    if ! velorane_pw_wait_for pactl info; then
        echo "pipewire: pipewire-pulse didn't answer (see $1/pipewire-pulse.err)" >&2
        return 1
    fi
}

# Stops the daemons, the last started first, and reaps them.
velorane_stop_pipewire() {
    local i pid _
    for ((i = ${#VELORANE_PW_PIDS[@]} - 1; i >= 0; i--)); do
        pid="${VELORANE_PW_PIDS[$i]}"
        kill "$pid" 2>/dev/null || true
        for _ in $(seq 50); do
            velorane_process_running "$pid" || break
            sleep 0.1
        done
        if velorane_process_running "$pid"; then
            kill -9 "$pid" 2>/dev/null || true
        fi
        wait "$pid" 2>/dev/null || true
    done
    VELORANE_PW_PIDS=()
}
