// The audio driver's datagrams and the byte views they are built with.

#include "Common/Audio/Src/DriverMessages.h"
#include "Common/Audio/Src/ByteBuffer.h"

#include <gtest/gtest.h>

#include <vector>

using namespace quorvan;
using namespace quorvan::driver;

TEST(DriverMessagesTest, DottedQuadPacksTheFirstPartInTheTopByte)
{
    EXPECT_EQ(PackDottedQuad("192.168.1.20"), 0xC0A80114u);
    EXPECT_EQ(PackDottedQuad("127.0.0.1"), 0x7F000001u);
}

TEST(DriverMessagesTest, AnythingButADottedQuadIsZero)
{
    EXPECT_EQ(PackDottedQuad(""), 0u);
    EXPECT_EQ(PackDottedQuad("kyr.local"), 0u);
    EXPECT_EQ(PackDottedQuad("10.0.0"), 0u);
    EXPECT_EQ(PackDottedQuad("::1"), 0u);
}

TEST(DriverMessagesTest, AddressMessageLayout)
{
    const std::vector<uint8_t> message = BuildKyrAddressMessage(0xC0A80114u, 7000, "secret");
    const std::vector<uint8_t> expected = {0xC0, 0xA8, 0x01, 0x14, 0x1B, 0x58, 0,   0,   0,   0,
                                           0,    0,    0,    6,    's',  'e',  'c', 'r', 'e', 't'};
    EXPECT_EQ(message, expected);
}

TEST(DriverMessagesTest, GoodbyeIsFourteenZeros)
{
    EXPECT_EQ(BuildKyrAddressMessage(0, 0, ""), std::vector<uint8_t>(14, 0));
}

TEST(DriverMessagesTest, MicrophoneDatagramIsStampThenBigEndianSamples)
{
    const int16_t samples[] = {1, -2, 0x1234, -32768};
    uint8_t out[kMaxMicrophoneDatagram];
    const size_t length = BuildMicrophoneDatagram(0x0102030405060708ull, samples, 2, out);
    ASSERT_EQ(length, 16u);
    const std::vector<uint8_t> expected = {1,    2,    3,    4,    5,    6,    7,    8,
                                           0x00, 0x01, 0xFF, 0xFE, 0x12, 0x34, 0x80, 0x00};
    EXPECT_EQ(std::vector<uint8_t>(out, out + length), expected);
}

TEST(DriverMessagesTest, MicrophoneDatagramHoldsAtMost882Frames)
{
    std::vector<int16_t> samples(900 * 2, 7);
    uint8_t out[kMaxMicrophoneDatagram];
    EXPECT_EQ(BuildMicrophoneDatagram(0, samples.data(), 900, out), 3536u);
    EXPECT_EQ(BuildMicrophoneDatagram(0, samples.data(), 0, out), 8u);
}

TEST(DriverMessagesTest, BigEndianSamplesComeOutInHostOrder)
{
    const uint8_t bytes[] = {0x00, 0x01, 0xFF, 0xFF, 0x7F, 0xFF, 0x80, 0x00};
    int16_t samples[4] = {};
    ReadBigEndianSamples(bytes, 4, samples);
    EXPECT_EQ(samples[0], 1);
    EXPECT_EQ(samples[1], -1);
    EXPECT_EQ(samples[2], 32767);
    EXPECT_EQ(samples[3], -32768);
}

TEST(ByteBufferTest, ReadsBigEndianAndAdvances)
{
    const uint8_t bytes[] = {0x12, 0, 0, 0, 0, 0, 0, 0, 0x2A, 0xFF, 0xFF, 0xFF, 0xFE};
    ByteBuffer<const uint8_t> reader(bytes, sizeof(bytes));
    uint8_t command = 0;
    uint64_t stamp = 0;
    int32_t count = 0;
    EXPECT_TRUE(reader.ReadUInt8(command));
    EXPECT_TRUE(reader.ReadUInt64(stamp));
    EXPECT_TRUE(reader.ReadInt32(count));
    EXPECT_EQ(command, 0x12);
    EXPECT_EQ(stamp, 42u);
    EXPECT_EQ(count, -2);
    EXPECT_EQ(reader.Position(), sizeof(bytes));
    EXPECT_FALSE(reader.Failed());
}

TEST(ByteBufferTest, ReadPastTheEndFailsAndLeavesThePosition)
{
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7};
    ByteBuffer<const uint8_t> reader(bytes, sizeof(bytes));
    int32_t word = 0;
    int64_t wide = 99;
    EXPECT_TRUE(reader.ReadInt32(word));
    EXPECT_FALSE(reader.ReadInt64(wide));
    EXPECT_EQ(wide, 99);
    EXPECT_EQ(reader.Position(), 4u);
    EXPECT_TRUE(reader.Failed());
    // Once failed, even a read that would fit is refused.
    int16_t narrow = 0;
    EXPECT_FALSE(reader.ReadInt16(narrow));
    reader.Rewind();
    EXPECT_TRUE(reader.ReadInt16(narrow));
    EXPECT_EQ(narrow, 0x0102);
}

TEST(ByteBufferTest, WritesBigEndianWithinItsSpan)
{
    uint8_t bytes[6] = {};
    ByteBuffer<uint8_t> writer(bytes, sizeof(bytes));
    EXPECT_TRUE(writer.WriteBigEndian(static_cast<uint32_t>(0xA1B2C3D4u)));
    EXPECT_FALSE(writer.WriteBigEndian(static_cast<uint32_t>(1)));
    EXPECT_EQ(writer.Position(), 4u);
    const uint8_t expected[6] = {0xA1, 0xB2, 0xC3, 0xD4, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 6), std::vector<uint8_t>(expected, expected + 6));
}
