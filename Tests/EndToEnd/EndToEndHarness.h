#pragma once

// One end-to-end scene: a private temporary folder (TMPDIR, the runtime
// folder for local sockets, HOME and the data folder all inside it), a
// throw-away TLS certificate, and helpers to start kyr-sim, client-sim and
// the relay as real processes.

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace velorane::test {

class EndToEndScene
{
public:
    EndToEndScene();

    // The environment every process of the scene gets.
    std::map<std::string, std::string> Environment() const;
    // From now on the scene's processes show their windows on this X
    // display instead of the offscreen platform.
    void ShowOnDisplay(const std::string& display) { m_display = display; }
    // From now on the scene's processes get this variable too (over the
    // scene's own value of it).
    void SetEnvironment(const std::string& name, const std::string& value)
    {
        m_extraEnvironment[name] = value;
    }

    // The scene's stand-in for /var/tmp, bound over it in the relay's
    // private mount namespace; empty when the machine allows no such
    // namespace, and the relay then sees the real /var/tmp.
    std::string VarTmp() const
    {
        return m_relayWrapper.empty() ? std::string() : m_dir.File("var-tmp");
    }
    // From now on the scene's processes can't make a UDP socket: it fails
    // with EMFILE, as when a process has no descriptor left
    // (Tools/FaultPreload, preloaded).
    void RefuseUdpSockets();
    // Starts kyr-sim on base port + 3 and waits until it listens. Returns
    // false when it didn't come up.
    bool StartKyr(int basePort, const std::vector<std::string>& extra = {});
    // Whether umockdev's preload library is installed, which the Kyr on an
    // emulated USB device needs.
    static bool UsbEmulationAvailable();
    // Starts kyr-sim as the Kyr on a USB device that umockdev emulates
    // (--usb, recording to the scene's file of that name, kyr.rec unless
    // told) and points the scene's processes started after it at its
    // testbed: UMOCKDEV_DIR, and umockdev's preload library behind
    // AddressSanitizer's runtime when this test has it. It is a process of
    // its own, UsbKyr(), beside a kyr-sim over TLS. Returns false when it
    // didn't come up.
    bool StartUsbKyr(const std::vector<std::string>& extra = {},
                     const std::string& record = "kyr.rec");
    // Starts client-sim with its script; relay arguments follow "--" when
    // given. Waits until it listens.
    bool StartClient(const std::vector<std::string>& sends,
                     const std::vector<std::string>& relayArguments,
                     const std::vector<std::string>& extra = {});
    // Starts the relay alone.
    bool StartRelay(const std::vector<std::string>& arguments);
    // Starts vdisplay-sim as the virtual display process, recording to
    // vdisplay.rec, and waits until it listens.
    bool StartVirtualDisplay(const std::vector<std::string>& extra = {});
    // Starts our real virtual display program, VeloraneVirtualDisplay, in
    // the same place, with its output in program.out, and waits until it
    // serves its socket. It needs the scene's X display.
    bool StartVirtualDisplayProgram(const std::vector<std::string>& extra = {});
    // Copies the relay into a folder of its own with vdisplay-sim beside it
    // under the virtual display program's name, as standalone mode expects,
    // and starts that copy. The copy's options come from the environment,
    // with its record in vdisplay.rec and its process id in vdisplay.pid.
    bool StartStandaloneRelay(const std::vector<std::string>& arguments,
                              const std::string& virtualDisplayOptions = {});

    std::vector<std::string> KyrRecords() const;
    // The same without the audio service's requests, which the audio
    // manager sends on its own schedule beside the video ones.
    std::vector<std::string> KyrVideoRecords() const;
    std::vector<std::string> ClientRecords() const;
    std::vector<std::string> VirtualDisplayRecords() const;
    // All log files of the run, concatenated.
    std::string LogText() const;
    bool LogFolderExists() const;
    std::string LogFolder() const;

    TempDir& Dir() { return m_dir; }
    ChildProcess& Kyr() { return m_kyr; }
    ChildProcess& UsbKyr() { return m_usbKyr; }
    ChildProcess& Client() { return m_client; }
    ChildProcess& Relay() { return m_relay; }
    ChildProcess& VirtualDisplay() { return m_virtualDisplay; }

    // A base port whose + 3 was free a moment ago.
    static int FreeBasePort();

private:
    TempDir m_dir;
    ChildProcess m_kyr;
    ChildProcess m_usbKyr;
    ChildProcess m_client;
    ChildProcess m_relay;
    ChildProcess m_virtualDisplay;
    std::string m_display;
    std::map<std::string, std::string> m_extraEnvironment;
    std::vector<std::string> m_relayWrapper;
};

std::vector<std::string> ReadLines(const std::string& path);

// One line of the relay's log file: its group column ("* Warning     *"),
// function and message.
struct LogFileLine
{
    std::string group;
    std::string function;
    std::string message;
};
// The lines of the tab-separated log: time, thread, group, function,
// message, source, line.
std::vector<LogFileLine> ParseLogFile(const std::string& text);
// Lines with exactly this group and message.
size_t CountLogLines(const std::string& log, const std::string& group, const std::string& message);
// Records that begin with prefix.
size_t CountRecords(const std::vector<std::string>& records, const std::string& prefix);
std::vector<std::string> WithPrefix(const std::vector<std::string>& records,
                                    const std::string& prefix);
// The number behind " name=" in a record line, or -1.
long long Field(const std::string& record, const std::string& name);
// Writes one order line to an emulator's control pipe (--control), which
// the emulator holds open; false when nobody reads the pipe.
bool WriteOrder(const std::string& pipe, const std::string& order);
// Asks done() every 50 ms until it holds or the time is up.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout);
std::string Hex(const std::string& bytes);

} // namespace velorane::test
