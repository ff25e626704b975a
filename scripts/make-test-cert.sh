#!/usr/bin/env bash
# Makes a throw-away self-signed certificate and key for kyr-sim, for tests
# only: DIR/kyr-sim.crt and DIR/kyr-sim.key, valid for two days. Does nothing
# when both files already exist. Never commit the key it writes.
set -euo pipefail

if [[ $# -ne 1 || "$1" == "-h" || "$1" == "--help" ]]; then
    echo "usage: $(basename "$0") DIR" >&2
    [[ $# -eq 1 ]] && exit 0
    exit 2
fi

dir="$1"
crt="$dir/kyr-sim.crt"
key="$dir/kyr-sim.key"

if [[ -s "$crt" && -s "$key" ]]; then
    exit 0
fi

command -v openssl >/dev/null || {
    echo "make-test-cert.sh: openssl not found (Debian package openssl)" >&2
    exit 1
}

mkdir -p "$dir"
# Write beside the final names and rename, so that a second caller running
# at the same moment never sees half a pair.
tmp="$(mktemp -d "$dir/.kyr-sim-cert.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=kyr-sim \
    -keyout "$tmp/kyr-sim.key" -out "$tmp/kyr-sim.crt" 2>/dev/null
chmod 600 "$tmp/kyr-sim.key"
mv -f "$tmp/kyr-sim.key" "$key"
mv -f "$tmp/kyr-sim.crt" "$crt"
