// Random identifiers from the kernel. Stateless; any thread may call.

#include "Common/Logger/Src/Logger.h"
#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/UUID.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace quorvan::platform {

namespace {

// getrandom never hands back fewer bytes for a request this small unless a
// signal cuts in, and then we simply ask again.
bool FillFromGetrandom(uint8_t* bytes, size_t count)
{
    size_t filled = 0;
    while (filled < count) {
        const ssize_t got = getrandom(bytes + filled, count - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (got == 0) {
            return false;
        }
        filled += static_cast<size_t>(got);
    }
    return true;
}

// For a kernel without getrandom, or a sandbox that forbids it.
bool FillFromDevice(uint8_t* bytes, size_t count)
{
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    size_t filled = 0;
    while (filled < count) {
        const ssize_t got = ::read(fd, bytes + filled, count - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    ::close(fd);
    return filled == count;
}

uint32_t BigEndian(const uint8_t* bytes, size_t count)
{
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

} // namespace

UUID GenerateUuid()
{
    uint8_t bytes[16] = {};
    if (!FillFromGetrandom(bytes, sizeof(bytes))) {
        const int getrandomError = errno;
        if (!FillFromDevice(bytes, sizeof(bytes))) {
            // Nothing random to be had: the identifier keeps only its version
            // and variant bits, which is still a well-formed value.
            VLOG(EGroupValueSevere, "No random source for a UUID (getrandom errno %d)",
                 getrandomError);
        }
    }
    // RFC 4122 version 4: the high nibble of byte 6 is the version, the top
    // two bits of byte 8 are the variant 10.
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);

    UUID uuid;
    uuid.data1 = BigEndian(bytes, 4);
    uuid.data2 = static_cast<uint16_t>(BigEndian(bytes + 4, 2));
    uuid.data3 = static_cast<uint16_t>(BigEndian(bytes + 6, 2));
    for (size_t i = 0; i < 8; ++i) {
        uuid.data4[i] = bytes[8 + i];
    }
    return uuid;
}

} // namespace quorvan::platform
