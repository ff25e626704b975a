#pragma once

// A view of a span of bytes with a position, for the audio driver's
// datagrams and the Kyr's audio payloads, which are big-endian throughout.
// Reading or writing advances the position. A read or write that would pass
// the end does nothing and marks the buffer failed, so that a short datagram
// from the network is turned away instead of ending the process.
//
// Threads: a buffer belongs to the thread that made it.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace quorvan {

template <typename T> class ByteBuffer
{
    static_assert(sizeof(T) == 1, "a ByteBuffer views bytes");

public:
    ByteBuffer(T* data, size_t size) : m_data(data), m_size(size) {}

    T* Data() const { return m_data; }
    size_t Size() const { return m_size; }
    size_t Position() const { return m_position; }
    size_t Remaining() const { return m_size - m_position; }
    bool Failed() const { return m_failed; }
    void Rewind()
    {
        m_position = 0;
        m_failed = false;
    }

    bool ReadUInt8(uint8_t& value) { return ReadBigEndian(value); }
    bool ReadUInt64(uint64_t& value) { return ReadBigEndian(value); }
    bool ReadInt64(int64_t& value) { return ReadBigEndian(value); }
    bool ReadInt32(int32_t& value) { return ReadBigEndian(value); }
    bool ReadInt16(int16_t& value) { return ReadBigEndian(value); }

    // The next count bytes as they stand.
    bool ReadBytes(void* destination, size_t count)
    {
        if (!Take(count)) {
            return false;
        }
        std::memcpy(destination, m_data + m_position - count, count);
        return true;
    }

    template <typename V> bool WriteBigEndian(V value)
    {
        static_assert(std::is_integral<V>::value, "integers only");
        using U = typename std::make_unsigned<V>::type;
        if (!Take(sizeof(V))) {
            return false;
        }
        U bits = static_cast<U>(value);
        unsigned char* out = reinterpret_cast<unsigned char*>(m_data + m_position - sizeof(V));
        for (size_t i = sizeof(V); i > 0; --i) {
            out[i - 1] = static_cast<unsigned char>(bits & 0xFFu);
            bits = static_cast<U>(bits >> 8);
        }
        return true;
    }

    bool WriteBytes(const void* source, size_t count)
    {
        if (!Take(count)) {
            return false;
        }
        if (count) {
            std::memcpy(m_data + m_position - count, source, count);
        }
        return true;
    }

private:
    template <typename V> bool ReadBigEndian(V& value)
    {
        using U = typename std::make_unsigned<V>::type;
        if (!Take(sizeof(V))) {
            return false;
        }
        const unsigned char* in =
            reinterpret_cast<const unsigned char*>(m_data + m_position - sizeof(V));
        U bits = 0;
        for (size_t i = 0; i < sizeof(V); ++i) {
            bits = static_cast<U>((bits << 8) | in[i]);
        }
        value = static_cast<V>(bits);
        return true;
    }

    // Moves the position on by count if that many bytes are left.
    bool Take(size_t count)
    {
        if (m_failed || count > Remaining()) {
            m_failed = true;
            return false;
        }
        m_position += count;
        return true;
    }

    T* m_data;
    size_t m_size;
    size_t m_position = 0;
    bool m_failed = false;
};

} // namespace quorvan
