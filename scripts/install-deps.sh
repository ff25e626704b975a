#!/usr/bin/env bash
# Installs every Debian package the relay needs to build, test, fuzz and
# benchmark (clang-14 and its libFuzzer runtime for the fuzz tree; iproute2
# brings up loopback in the audio fuzz targets' network namespace; gnuplot
# and python3 for scripts/soak.sh, its plot and its virtual monitor requests).
# Idempotent: asks apt only for what is missing, and refreshes the package
# lists only when something is.
set -euo pipefail

PACKAGES=(
    build-essential g++ cmake ninja-build pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5opengl5-dev
    libavcodec-dev libavutil-dev libavformat-dev libswscale-dev
    libusb-1.0-0-dev libopus-dev
    libcli11-dev libmsgsl-dev
    libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
    libx11-dev libxrandr-dev libxcb1-dev libxcb-randr0-dev
    xvfb xauth x11-utils x11-xserver-utils libgl1-mesa-dri
    umockdev libumockdev-dev
    pipewire-bin wireplumber pipewire-pulse pulseaudio-utils libpipewire-0.3-dev sox
    openssl ca-certificates
    clang-14 libclang-rt-14-dev iproute2
    gnuplot-nox python3
)

missing=()
for pkg in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all ${#PACKAGES[@]} packages present"
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
        SUDO="sudo"
    else
        echo "install-deps: missing packages: ${missing[*]}" >&2
        echo "install-deps: run as root (or with sudo) to install them" >&2
        exit 1
    fi
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
