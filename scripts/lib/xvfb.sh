# Sourced by the scripts: starts a private Xvfb when no DISPLAY is set and
# stops it when the script exits.

velorane_start_xvfb() {
    if [ -n "${DISPLAY:-}" ]; then
        return 0
    fi
    velorane_start_private_xvfb 1920x1080
}

# Starts a private Xvfb whatever DISPLAY says, with a screen of the size
# given (WIDTHxHEIGHT, 1920x1080 by default), and points DISPLAY at it.
velorane_start_private_xvfb() {
    local size="${1:-1920x1080}"
    if ! command -v Xvfb >/dev/null 2>&1; then
        echo "xvfb: Xvfb not found: install the Debian package xvfb (scripts/install-deps.sh)" >&2
        return 1
    fi
    local fifo
    fifo="$(mktemp -u)"
    mkfifo "$fifo"
    Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp -noreset 3>"$fifo" >/dev/null 2>&1 &
    VELORANE_XVFB_PID=$!
    local number=""
    read -r -t 20 number <"$fifo" || true
    rm -f "$fifo"
    if [ -z "$number" ]; then
        echo "xvfb: the private X server did not start" >&2
        kill "$VELORANE_XVFB_PID" 2>/dev/null || true
        return 1
    fi
    export DISPLAY=":$number"
    trap velorane_stop_xvfb EXIT
    echo "xvfb: private X server on $DISPLAY"
}

velorane_stop_xvfb() {
    if [ -n "${VELORANE_XVFB_PID:-}" ]; then
        kill "$VELORANE_XVFB_PID" 2>/dev/null || true
        wait "$VELORANE_XVFB_PID" 2>/dev/null || true
        VELORANE_XVFB_PID=""
    fi
}
