#pragma once

// The device node of an emulated usbfs device, made a FIFO so that a poll()
// on it says when a URB is ready to be reaped, as a real usbfs node does.
// A regular file always looks ready, which makes libusb's event loop spin.
//
// libusb polls a usbfs node for POLLOUT, and a FIFO is writable while its
// buffer has a free page: so the buffer is kept full while nothing is ready
// and one page is taken out while something is. This end is opened read
// and write and never blocks; the program under test opens the node as its
// device and only polls it.
//
// Threads: the owner serialises all calls.

#include <string>

namespace simcommon {

class UsbNodeFifo
{
public:
    UsbNodeFifo() = default;
    ~UsbNodeFifo();
    UsbNodeFifo(const UsbNodeFifo&) = delete;
    UsbNodeFifo& operator=(const UsbNodeFifo&) = delete;

    // Makes the FIFO at path, replacing what is there, and fills it. False,
    // with a note on standard error, when that fails.
    bool Create(const std::string& path);
    // Makes the node look ready for a reap, or not.
    void SetReady(bool ready);

private:
    int m_fd = -1;
    bool m_ready = false;
};

} // namespace simcommon
