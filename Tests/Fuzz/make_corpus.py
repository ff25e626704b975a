#!/usr/bin/env python3
"""Records real exchanges with the peer emulators and writes them as seeds.

Run by hand from the repository root, with the emulators built in build/
(ninja -C build kyr-sim client-sim vdisplay-sim driver-sim):

    python3 Tests/Fuzz/make_corpus.py [--out Tests/Fuzz/corpus] [--programs-only]

Each emulator is started on loopback or a private socket folder and spoken
to the way the relay speaks to it; what it answers (or sends) is written in
the layout of the fuzz target that reads it. Most targets take their byte
stream from the front of an input and the points where it is cut from its
end (libFuzzer's FuzzedDataProvider), so a seed is the stream followed by
those cut points, encoded the way the provider reads them. Seeds are named
seed-*; inputs kept because they once found a fault are named regression-*
and are left alone.
"""

import argparse
import os
import shutil
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN = os.path.join(ROOT, "build", "bin")

VIDEO = 0xBBFE4599
AUDIO = 0xEABA0314
START_VIDEO, REQUEST_FRAME, STOP_VIDEO = 0xCD01, 0xD0F9, 0xEF34
REQUEST_AUDIO, PING, AUDIO_START, AUDIO_STOP = 0x62EB, 0xD43E, 0x1000A, 0x1DEAD


class Tail:
    """Values read from the end of an input by FuzzedDataProvider, in the
    order the target reads them; bytes() gives them as they must stand."""

    def __init__(self):
        self.consumed = []

    def integral(self, value, byte_count):
        # The provider reads the most significant byte first, from the end.
        for shift in range(byte_count - 1, -1, -1):
            self.consumed.append((value >> (8 * shift)) & 0xFF)
        return self

    def bytes(self):
        return bytes(reversed(self.consumed))


def split_stream(pieces, tail=None):
    """A stream cut into pieces as SplitStream reads it: lengths (two bytes
    each, below 4097) from the end, bytes from the front."""
    tail = tail or Tail()
    front = b""
    for piece in pieces:
        assert 0 < len(piece) <= 4096
        tail.integral(len(piece), 2)
        front += piece
    return front, tail


def split_seed(pieces, head_tail=None):
    front, tail = split_stream(pieces, head_tail)
    return front + tail.bytes()


def cut(data, sizes):
    """data in pieces of the given sizes, the rest in pieces of 4096."""
    pieces = []
    at = 0
    for size in sizes:
        if at >= len(data):
            break
        pieces.append(data[at:at + size])
        at += size
    while at < len(data):
        pieces.append(data[at:at + 4096])
        at += 4096
    return pieces


def write(out, target, name, data):
    folder = os.path.join(out, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "seed-" + name), "wb") as f:
        f.write(data)


def wait_line(process, prefix, timeout=20):
    deadline = time.time() + timeout
    while time.time() < deadline:
        line = process.stdout.readline().decode(errors="replace")
        if line.startswith(prefix):
            return line.strip()
        if not line and process.poll() is not None:
            break
    raise RuntimeError("no line %r from %s" % (prefix, process.args[0]))


def request(service, command, payload=b""):
    return struct.pack("<III", service, command, len(payload)) + payload


def read_response(sock):
    header = b""
    while len(header) < 12:
        chunk = sock.recv(12 - len(header))
        if not chunk:
            raise RuntimeError("kyr-sim closed the link")
        header += chunk
    size = struct.unpack(">III", header)[2]
    body = b""
    while len(body) < size - 12:
        chunk = sock.recv(size - 12 - len(body))
        if not chunk:
            raise RuntimeError("kyr-sim closed the link")
        body += chunk
    return header + body


def kyr_exchange(work):
    """Responses of kyr-sim over TLS: video at a small size, microphone
    audio, the ping's answer, the audio commands, an unknown command."""
    subprocess.run([os.path.join(ROOT, "scripts", "make-test-cert.sh"), work], check=True)
    kyr = subprocess.Popen(
        [os.path.join(BIN, "kyr-sim"), "--port", "0", "--password", "fuzz",
         "--cert", os.path.join(work, "kyr-sim.crt"), "--key", os.path.join(work, "kyr-sim.key"),
         "--mic-frames", "24", "--record", os.path.join(work, "kyr.log"), "--time-limit", "30"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    try:
        port = int(wait_line(kyr, "kyr-sim: listening on").rsplit(":", 1)[1])
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        raw = socket.create_connection(("127.0.0.1", port), timeout=10)
        sock = context.wrap_socket(raw)
        sock.sendall(struct.pack("<I", 4) + b"fuzz")
        exchanges = []

        def ask(service, command, payload=b""):
            sock.sendall(request(service, command, payload))
            response = read_response(sock)
            exchanges.append((service, command, response))
            return response

        ask(VIDEO, START_VIDEO, struct.pack("<ii", 64, 48))
        for _ in range(6):
            ask(VIDEO, REQUEST_FRAME)
        ask(AUDIO, REQUEST_AUDIO)
        ask(AUDIO, REQUEST_AUDIO)
        ask(AUDIO, PING, struct.pack("<q", int(time.time() * 1000)))
        ask(AUDIO, AUDIO_START)
        ask(AUDIO, AUDIO_STOP)
        ask(VIDEO, STOP_VIDEO)
        ask(0x12345678, 0x9ABC)
        sock.close()
        return exchanges
    finally:
        kyr.terminate()
        kyr.wait()


def kyr_seeds(out, exchanges):
    responses = [r for (_, _, r) in exchanges]
    stream = b"".join(responses)
    # TLS: the whole exchange in readyRead-sized pieces of several kinds.
    write(out, "tls_response", "exchange-whole-responses", split_seed(cut(stream, [len(r) for r in responses])))
    write(out, "tls_response", "exchange-split-5", split_seed(cut(stream, [5, 7, 1, 300, 2])))
    write(out, "tls_response", "exchange-merged", split_seed(cut(stream, [len(responses[0]) + len(responses[1]) + 3])))
    for service, command, response in exchanges:
        if command in (REQUEST_AUDIO, PING, START_VIDEO):
            write(out, "tls_response", "response-%x" % command, split_seed(cut(response, [])))
    write(out, "tls_response", "header-announces-2GiB",
          split_seed([struct.pack(">III", VIDEO, REQUEST_FRAME, 0x80000000) + b"\xa5" * 64]))
    write(out, "tls_response", "small-size-field",
          split_seed([struct.pack(">III", VIDEO, REQUEST_FRAME, 4)] * 3))

    # USB: one IN transfer per attempt (mode 0: a piece of the input).
    for index, (service, command, response) in enumerate(exchanges[:9]):
        if len(response) > 4096:
            continue
        tail = Tail().integral(1 if service == AUDIO else 0, 1)
        tail.integral(0, 1).integral(len(response), 2)
        write(out, "usb_response", "in-transfer-%d-%x" % (index, command), response + tail.bytes())
    # Two empty transfers, then the answer; a frame-sized one at the limit
    # and one past it.
    first = exchanges[1][2]
    if len(first) <= 4096:
        tail = Tail().integral(0, 1).integral(2, 1).integral(2, 1).integral(0, 1).integral(len(first), 2)
        write(out, "usb_response", "third-attempt", first + tail.bytes())
    head = struct.pack(">III", VIDEO, REQUEST_FRAME, 0x10000C)
    tail = Tail().integral(0, 1).integral(1, 1).integral(4, 1).integral(len(head), 2)
    write(out, "usb_response", "at-the-limit", head + tail.bytes())
    tail = Tail().integral(0, 1).integral(1, 1).integral(5, 1).integral(len(head), 2)
    write(out, "usb_response", "past-the-limit", head + tail.bytes())

    # The Kyr's audio payloads, the command picked by the last byte.
    picks = {REQUEST_AUDIO: 0, PING: 1, AUDIO_START: 2}
    for index, (service, command, response) in enumerate(exchanges):
        if service == AUDIO and command in picks:
            write(out, "audio_kyr_payload", "payload-%d-%x" % (index, command),
                  response[12:] + bytes([picks[command]]))
    write(out, "audio_kyr_payload", "mic-too-many-frames",
          struct.pack(">Qi", 0, 883) + b"\x01" * (883 * 4) + b"\x00")
    write(out, "audio_kyr_payload", "mic-negative-count", struct.pack(">Qi", 5, -1) + b"\x00" * 8 + b"\x00")

    # Video frames: the access units of the frame responses, in a row.
    frames = []
    for service, command, response in exchanges:
        if command == REQUEST_FRAME:
            payload = response[12:]
            number, length = struct.unpack("<ii", payload[:8])
            bitstream = payload[8:8 + length]
            width, height = struct.unpack("<ii", payload[8 + length:16 + length])
            frames.append((bitstream, width, height))

    def record(mode, extra, bitstream, width, height, wire_length=None):
        length = len(bitstream) if wire_length is None else wire_length
        return struct.pack(">BBHHI", mode, extra, width, height, length) + bitstream

    write(out, "video_frame", "stream-six-pictures", b"".join(record(0, 0, *f) for f in frames))
    write(out, "video_frame", "first-picture", record(0, 0, *frames[0]))
    if len(frames) > 1:
        write(out, "video_frame", "size-field-short", record(0, 0, *frames[0]) + record(1, 0xF0, *frames[1]))
        write(out, "video_frame", "size-field-at-limit", record(0, 0, *frames[0]) + record(2, 0, *frames[1]))
        write(out, "video_frame", "size-field-past-limit", record(0, 0, *frames[0]) + record(2, 1, *frames[1]))
        write(out, "video_frame", "length-lies", record(0, 0, *frames[0]) + record(3, 0, frames[1][0], 64, 48, 0x7FFFFFF0))


def client_exchange(work, actions, seconds=2.0):
    """What client-sim sends the relay for a script, read as the relay
    reads it from VELORANE_RELAY."""
    env = dict(os.environ, XDG_RUNTIME_DIR=work)
    command = [os.path.join(BIN, "client-sim"), "--time-limit", "10", "--record", os.path.join(work, "client.log")]
    for action in actions:
        command += ["--send", action]
    client = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    try:
        path = wait_line(client, "client-sim: listening on").split(" on ", 1)[1]
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect(path)
        sock.settimeout(0.3)
        received = b""
        deadline = time.time() + seconds
        while time.time() < deadline:
            try:
                chunk = sock.recv(65536)
            except socket.timeout:
                continue
            if not chunk:
                break
            received += chunk
        sock.close()
        return received
    finally:
        client.terminate()
        client.wait()


def client_seeds(out, work):
    scripts = {
        "orders": ["start-scrape", "connect-usb", "kill2", "error-to-relay", "unknown:0xfe4a", "kill"],
        "pixels-frame": ["pixels-frame:7:40:64:48", "pixels-frame:8:16", "kill"],
        "pixels-h264": ["pixels-h264:2:64x48", "kill"],
        "short-and-raw": ["short:3", "raw:00000008", "raw:0000fe51", "unknown:0", "kill"],
    }
    for name, actions in scripts.items():
        stream = client_exchange(work, actions, seconds=2.5 if "h264" in name else 1.2)
        if not stream:
            raise RuntimeError("client-sim sent nothing for " + name)
        write(out, "client_link", name + "-by-message", split_seed(cut(stream, [8, 8, 8, 8, 8, 13])))
        write(out, "client_link", name + "-by-byte-runs", split_seed(cut(stream, [3, 1, 6, 2, 11, 5])))


def vdisplay_exchange(work, requests, options=()):
    env = dict(os.environ, XDG_RUNTIME_DIR=work)
    display = subprocess.Popen(
        [os.path.join(BIN, "vdisplay-sim"), "--time-limit", "10", "--record",
         os.path.join(work, "vdisplay.log")] + list(options),
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    try:
        wait_line(display, "vdisplay-sim: listening on")
        replies = []
        for message in requests:
            # One request per connection, as the relay makes them.
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            sock.connect(os.path.join(work, "VIRTUAL_MONITOR_SERVER"))
            sock.settimeout(3)
            sock.sendall(message)
            reply = b""
            while len(reply) < 4 or len(reply) < struct.unpack(">i", reply[:4])[0]:
                chunk = sock.recv(4096)
                if not chunk:
                    break
                reply += chunk
            sock.close()
            replies.append(reply)
        return replies
    finally:
        display.terminate()
        display.wait()


def vmonitor_request(command, payload=b""):
    return struct.pack(">ihb", 7 + len(payload), command - 0x10000 if command > 0x7FFF else command, 0) + payload


def vmonitor_seeds(out, work):
    requests = [
        vmonitor_request(0xA144, struct.pack(">iib", 1920, 1080, -6)),
        vmonitor_request(0xA13D, struct.pack(">ii", 1280, 720)),
        vmonitor_request(0xA143, struct.pack(">?q", True, 0x4A00007)),
        vmonitor_request(0xA147),
        vmonitor_request(0xA13E),
        vmonitor_request(0xA140),
        vmonitor_request(0xA141, struct.pack(">iiii", 0, 0, 640, 480)),
        vmonitor_request(0xA148),
        vmonitor_request(0xA13F),
    ]
    replies = vdisplay_exchange(work, requests)
    replies += vdisplay_exchange(work, [vmonitor_request(0xA147)], ["--calibrate", "notfound"])
    replies += vdisplay_exchange(work, [vmonitor_request(0xA144, struct.pack(">iib", 1, 1, 1))],
                                 ["--result", "SetResolution=-3"])
    asked = {0xA143: 1, 0xA147: 2}
    for index, reply in enumerate(replies):
        command = struct.unpack(">H", reply[4:6])[0]
        write(out, "vmonitor_reply", "reply-%d-%x" % (index, command), reply + bytes([asked.get(command, 0)]))
    write(out, "vmonitor_reply", "two-replies", replies[0] + replies[1] + b"\x00")

    stream = b"".join(requests)
    for display_server in (0, 1):
        head = Tail().integral(display_server, 1)
        for value in (0, -3, 0, 0, 10, 20, 1280, 720):
            head.integral(value & 0xFFFFFFFF, 4)
        name = "display" if display_server else "relay"
        write(out, "vmonitor_server", name + "-requests", split_seed(cut(stream, [len(r) for r in requests]), head))
        head2 = Tail().integral(display_server, 1)
        for value in (0, 0, -1, -1, 0, 0, 0, 0):
            head2.integral(value & 0xFFFFFFFF, 4)
        write(out, "vmonitor_server", name + "-requests-split", split_seed(cut(stream, [3, 9, 1, 40]), head2))


def relay_monitor_requests():
    """The requests the relay's ConferenceMonitor sends, in its order: the
    monitor's resolution with the relay's tag (250), the conference at its
    own size, the calibration, the cursor cage on its window, the end."""
    return [
        vmonitor_request(0xA144, struct.pack(">iiB", 1920, 1080, 250)),
        vmonitor_request(0xA13D, struct.pack(">ii", 1280, 720)),
        vmonitor_request(0xA147),
        vmonitor_request(0xA143, struct.pack(">?q", True, 0x4A00007)),
        vmonitor_request(0xA13F),
    ]


def vdisplay_program_seeds(out):
    """Request streams for the display program itself; the first value from
    the end says whether the monitor arrives (0) or not within the input."""
    relay = relay_monitor_requests()

    def seed(name, pieces, arrives=True):
        write(out, "vdisplay_program", name, split_seed(pieces, Tail().integral(0 if arrives else 1, 1)))

    seed("conference", relay)
    seed("conference-no-monitor", relay, arrives=False)
    seed("conference-split", cut(b"".join(relay), [3, 9, 1, 40]))
    seed("conference-one-piece", [b"".join(relay)])
    for request in relay:
        command = struct.unpack(">H", request[4:6])[0]
        seed("alone-%x" % command, [request])
    seed("resolution-invalid", [vmonitor_request(0xA144, struct.pack(">iiB", 0, -1080, 250)),
                                vmonitor_request(0xA13D, struct.pack(">ii", 99999, 720))])
    seed("extended-and-reserved", [
        vmonitor_request(0xA13E), vmonitor_request(0xA140),
        vmonitor_request(0xA141, struct.pack(">iiii", 0, 0, 640, 480)),
        vmonitor_request(0xA142), vmonitor_request(0xA148)])
    seed("holes-and-strangers", [
        vmonitor_request(0xA145), vmonitor_request(0x1234),
        struct.pack(">ihb", 7, 0xA13F - 0x10000, 1),
        struct.pack(">ihb", 0, 0xA147 - 0x10000, 0),
        struct.pack(">ihb", -1, 0xA147 - 0x10000, 0)])


class DriverSteps:
    """An input of the audio driver program target: its steps' values from
    the end, the datagrams from the front."""

    def __init__(self, base_port=None):
        self.front = b""
        self.tail = Tail().integral(1 if base_port else 0, 1)
        if base_port:
            self.tail.integral(base_port - 1, 2)

    def datagram(self, kind, data):
        self.tail.integral(kind, 1).integral(len(data), 2)
        self.front += data
        return self

    def address(self, data):
        return self.datagram(0, data)

    def microphone(self, data):
        return self.datagram(1, data)

    def cycle(self, frames):
        self.tail.integral(2, 1).integral(frames - 1, 2)
        return self

    def clock(self, ms):
        self.tail.integral(3, 1).integral(ms, 2)
        return self

    def announce(self):
        self.tail.integral(4, 1)
        return self

    def bytes(self):
        return self.front + self.tail.bytes()


def relay_address(ip, port, password):
    """The Kyr's address as the relay's audio manager sends it to 9002."""
    text = password.encode()
    return struct.pack(">4sHQ", socket.inet_aton(ip), port, len(text)) + text


def audio_driver_program_seeds(out):
    """The relay's datagrams to the driver. The microphone audio is the
    Kyr's own, recorded from kyr-sim in the audio_kyr_payload seeds, turned
    into datagrams as the relay does: the time stamp, then the samples, at
    most 882 frames a datagram."""
    folder = os.path.join(out, "audio_kyr_payload")
    samples = b""
    for name in sorted(os.listdir(folder)):
        if name.startswith("seed-payload-") and name.endswith("-62eb"):
            with open(os.path.join(folder, name), "rb") as f:
                payload = f.read()[:-1]
            count = struct.unpack(">i", payload[8:12])[0]
            samples += payload[12:12 + 4 * count]
    if not samples:
        raise RuntimeError("no microphone payloads in audio_kyr_payload")
    # 10 ms a datagram, the Kyr's frames over and over: enough for the
    # playout to start.
    frames = 480

    def mic(stamp, count=frames):
        body = (samples * (1 + 4 * count // len(samples)))[:4 * count]
        return struct.pack(">Q", stamp) + body

    hello = relay_address("192.168.1.20", 7000, "s3cret")
    goodbye = relay_address("0.0.0.0", 0, "")

    def playing(steps, first_stamp, datagrams):
        for i in range(datagrams):
            steps.microphone(mic(first_stamp + i * frames)).clock(10).cycle(480)
        return steps

    steps = playing(DriverSteps().address(hello).announce(), 0, 8)
    write(out, "audio_driver_program", "address-then-microphone", steps.bytes())
    steps = playing(DriverSteps(7000).announce(), 4800, 8)
    write(out, "audio_driver_program", "started-with-base-port", steps.bytes())
    steps = playing(DriverSteps().address(hello), 0, 3).address(goodbye).clock(600)
    steps = playing(steps.address(hello), 0, 3)
    write(out, "audio_driver_program", "goodbye-and-back", steps.bytes())
    steps = playing(DriverSteps().address(hello), 0, 3)
    steps = playing(steps.address(relay_address("192.168.1.21", 7100, "other")), 0, 3)
    write(out, "audio_driver_program", "relay-moves", steps.bytes())
    steps = DriverSteps(7000)
    for stamp in (0, 2 * frames, frames, frames, 5 * frames):
        steps.microphone(mic(stamp))
    steps.clock(50).cycle(480).microphone(mic(3 * 48000)).clock(10).cycle(1024)
    write(out, "audio_driver_program", "out-of-order-lost-restart", steps.bytes())
    steps = DriverSteps(7000).microphone(mic(0, 882)).microphone(mic(882, 118))
    steps.cycle(256).cycle(8192)
    write(out, "audio_driver_program", "long-response-split", steps.bytes())
    steps = DriverSteps(7000)
    for i in range(8):
        steps.microphone(mic(i * 882, 882))
    steps.cycle(128).cycle(128)
    write(out, "audio_driver_program", "graph-suspended", steps.bytes())
    steps = DriverSteps()
    steps.address(hello[:13]).address(hello + b"x").address(relay_address("192.168.1.20", 0, "pw"))
    steps.address(relay_address("192.168.1.20", 65530, "pw")).microphone(mic(0)).announce()
    write(out, "audio_driver_program", "refused-addresses", steps.bytes())
    steps = DriverSteps(7000)
    for length in (0, 1, 7, 8, 9, 11, 13):
        steps.microphone(mic(0)[:length])
    write(out, "audio_driver_program", "short-microphone", steps.bytes())


def driver_exchange(work):
    """Datagrams driver-sim sends the relay's speaker port: announces and
    speaker audio, then, once told an address, its malformed sweep."""
    control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    control.bind(("127.0.0.1", 0))
    control_port = control.getsockname()[1]
    control.close()
    speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    speaker.bind(("127.0.0.1", 0))
    kyr_port = speaker.getsockname()[1] - 8
    if kyr_port < 1:
        raise RuntimeError("no room for the driver's ports")
    speaker.close()
    speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    speaker.bind(("127.0.0.1", kyr_port + 8))
    speaker.settimeout(0.5)
    driver = subprocess.Popen(
        [os.path.join(BIN, "driver-sim"), "--kyr-port", str(kyr_port), "--control-port", str(control_port),
         "--tone", "1000", "--tone-seconds", "1", "--packet-frames", "96", "--announce-interval", "200",
         "--time-limit", "3", "--record", os.path.join(work, "driver.log")],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    datagrams = []
    try:
        wait_line(driver, "driver-sim: ready")
        deadline = time.time() + 1.5
        while time.time() < deadline:
            try:
                datagrams.append(speaker.recv(4096))
            except socket.timeout:
                pass
    finally:
        driver.terminate()
        driver.wait()
        speaker.close()
    return datagrams


def driver_seeds(out, work):
    datagrams = driver_exchange(work)
    announces = [d for d in datagrams if d[:1] == b"\x03"]
    speakers = [d for d in datagrams if d[:1] == b"\x02"]
    if not announces or not speakers:
        raise RuntimeError("driver-sim sent no announce or no speaker data")
    write(out, "audio_driver_datagram", "announce-and-speaker", split_seed([announces[0]] + speakers[:3]))
    write(out, "audio_driver_datagram", "speaker-run", split_seed(speakers[:8]))
    write(out, "audio_driver_datagram", "announce", split_seed([announces[0]]))
    stamp_less = b"\x02" + b"\xff" * 8 + speakers[0][9:]
    write(out, "audio_driver_datagram", "no-timestamp", split_seed([stamp_less]))
    write(out, "audio_driver_datagram", "short-and-unknown",
          split_seed([b"\x02" + b"\x00" * 8, b"\x02" + b"\x00" * 9, b"\x00", b"\x01", b"\x04\x05"]))


def tunnel_seeds(out):
    def text(value):
        return value.replace(b"\\", b"\\\\") + b"\\x"

    def seed(ip, password, port, old):
        front = text(ip) + text(password)
        tail = Tail().integral(port, 2).integral(1 if old is not None else 0, 1)
        return front + (old or b"") + tail.bytes()

    write(out, "tunnel_file", "absent", seed(b"192.168.1.20", b"s3cret", 7005, None))
    write(out, "tunnel_file", "old-lines-and-foreign",
          seed(b"10.0.0.9", b"pw", 4, b"KyrIP=1.2.3.4:7005\nSSL=1\nTunnel=on\n\nMyPassword=1\nlast"))
    write(out, "tunnel_file", "empty-file", seed(b"127.0.0.1", b"", 65535, b""))
    write(out, "tunnel_file", "line-feed-in-password", seed(b"127.0.0.1", b"a\nb", 12, b"Foreign=1\n"))


def command_line_seeds(out):
    lines = {
        "tcp-emulator": ["-t", "-m", "--kyrIp", "127.0.0.1", "--relayPort", "7000", "--relayPassword", "secret"],
        "usb-standalone": ["-n", "--width", "1920", "--height", "1080", "--name", "Velorane"],
        "all-flags": ["-t", "-n", "-m", "-u", "-l", "--insecure-usbip", "--no-window", "--no-usbip"],
        "port-wraps": ["--relayPort", "65535", "--kyrIp", "10.0.0.1"],
        "port-too-large": ["--relayPort", "70000"],
        "help": ["--help"],
        "unknown": ["--bogus", "1"],
        "equals-form": ["--width=640", "--height=-1", "--name="],
    }
    for name, words in lines.items():
        write(out, "command_line", name, b"\x00".join(w.encode() for w in words))


def remove_seeds(out, targets=None):
    """Old seeds go; regression inputs stay."""
    for target in os.listdir(out) if os.path.isdir(out) else []:
        if targets is not None and target not in targets:
            continue
        folder = os.path.join(out, target)
        for name in os.listdir(folder):
            if name.startswith("seed-"):
                os.remove(os.path.join(folder, name))


def program_seeds(out):
    """The seeds of the programs shipped beside the relay, which need no
    emulator (the microphone audio comes from the audio_kyr_payload seeds)."""
    remove_seeds(out, ("vdisplay_program", "audio_driver_program"))
    vdisplay_program_seeds(out)
    audio_driver_program_seeds(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", default=os.path.join(ROOT, "Tests", "Fuzz", "corpus"))
    parser.add_argument("--programs-only", action="store_true",
                        help="only the display program's and the audio driver's seeds")
    args = parser.parse_args()
    if args.programs_only:
        program_seeds(args.out)
    else:
        for tool in ("kyr-sim", "client-sim", "vdisplay-sim", "driver-sim"):
            if not os.access(os.path.join(BIN, tool), os.X_OK):
                sys.exit("make_corpus.py: build %s first (ninja -C build %s)" % (tool, tool))
        remove_seeds(args.out)
        work = tempfile.mkdtemp(prefix="velorane-corpus-")
        os.chmod(work, 0o700)
        try:
            kyr_seeds(args.out, kyr_exchange(work))
            client_seeds(args.out, work)
            vmonitor_seeds(args.out, work)
            driver_seeds(args.out, work)
            tunnel_seeds(args.out)
            command_line_seeds(args.out)
        finally:
            shutil.rmtree(work, ignore_errors=True)
        program_seeds(args.out)
    for target in sorted(os.listdir(args.out)):
        folder = os.path.join(args.out, target)
        sizes = [os.path.getsize(os.path.join(folder, n)) for n in os.listdir(folder)]
        print("%-24s %3d files %8d bytes" % (target, len(sizes), sum(sizes)))


if __name__ == "__main__":
    main()
