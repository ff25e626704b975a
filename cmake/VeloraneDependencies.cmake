# Every dependency comes from a Debian package installed by
# scripts/install-deps.sh. A missing one stops the configure step with the
# name of the package to install.

find_package(PkgConfig)
if(NOT PkgConfig_FOUND)
    message(FATAL_ERROR "pkg-config not found: install the Debian package pkg-config (scripts/install-deps.sh)")
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

macro(velorane_require_package name debian_package)
    find_package(${name} ${ARGN} QUIET)
    if(NOT ${name}_FOUND)
        message(FATAL_ERROR
            "${name} not found: install the Debian package ${debian_package} (scripts/install-deps.sh)")
    endif()
endmacro()

macro(velorane_require_module var module debian_package)
    pkg_check_modules(${var} QUIET IMPORTED_TARGET ${module})
    if(NOT ${var}_FOUND)
        message(FATAL_ERROR
            "${module} not found: install the Debian package ${debian_package} (scripts/install-deps.sh)")
    endif()
endmacro()

velorane_require_package(Microsoft.GSL libmsgsl-dev CONFIG)

velorane_require_module(LIBAVCODEC libavcodec libavcodec-dev)
velorane_require_module(LIBAVUTIL libavutil libavutil-dev)
velorane_require_module(LIBUSB libusb-1.0 libusb-1.0-0-dev)
velorane_require_module(OPUS opus libopus-dev)

velorane_require_module(PIPEWIRE libpipewire-0.3 libpipewire-0.3-dev)
# The relay and the audio driver parse their command lines with CLI11.
velorane_require_package(CLI11 libcli11-dev CONFIG)

if(VELORANE_QT)
    velorane_require_package(Qt5 qtbase5-dev COMPONENTS Core Network Widgets Gui Test)
    # The virtual display program makes its monitor with XRandR 1.5.
    velorane_require_module(X11 x11 libx11-dev)
    velorane_require_module(XRANDR xrandr libxrandr-dev)
    # The relay's display watch on X11: RandR 1.5 monitors over xcb.
    velorane_require_module(XCB xcb libxcb1-dev)
    velorane_require_module(XCB_RANDR xcb-randr libxcb-randr0-dev)
endif()

if(VELORANE_BUILD_TESTS)
    velorane_require_package(GTest libgtest-dev)
    include(GoogleTest)
endif()

if(VELORANE_BUILD_BENCHMARKS)
    velorane_require_package(benchmark libbenchmark-dev)
    velorane_require_package(spdlog libspdlog-dev)
endif()
