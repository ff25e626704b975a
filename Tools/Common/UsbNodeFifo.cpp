#include "Tools/Common/UsbNodeFifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace simcommon {

namespace {
// One page of the pipe's buffer: taking it out frees a slot, which is what
// makes the FIFO writable.
constexpr size_t kPage = 4096;
} // namespace

UsbNodeFifo::~UsbNodeFifo()
{
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool UsbNodeFifo::Create(const std::string& path)
{
    unlink(path.c_str());
    if (mkfifo(path.c_str(), 0666) != 0) {
        std::fprintf(stderr, "emulated USB device: can't make the FIFO %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    m_fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        std::fprintf(stderr, "emulated USB device: can't open the FIFO %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    // Full pages until no more fits: not writable, so not ready.
    const std::vector<char> page(kPage, 0);
    while (write(m_fd, page.data(), page.size()) == static_cast<ssize_t>(page.size())) {
    }
    m_ready = false;
    return true;
}

void UsbNodeFifo::SetReady(bool ready)
{
    if (m_fd < 0 || ready == m_ready) {
        return;
    }
    std::vector<char> page(kPage, 0);
    const ssize_t moved =
        ready ? read(m_fd, page.data(), page.size()) : write(m_fd, page.data(), page.size());
    if (moved == static_cast<ssize_t>(page.size())) {
        m_ready = ready;
    }
}

} // namespace simcommon
