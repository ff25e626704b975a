// The driver's datagrams, byte for byte, as the relay reads them: all on
// 127.0.0.1, multi-byte fields big-endian.

#include "Drivers/AudioDriver/DriverDatagrams.h"

#include <gtest/gtest.h>

#include <vector>

using namespace quorvan::velorane::audiodriver;

TEST(DriverDatagramsTest, SpeakerDatagramIsCommandStampAndBigEndianSamples)
{
    const int16_t samples[] = {0x0102, -2, 0x7FFF, -32768};
    uint8_t out[kMaxSpeakerDatagram] = {};
    const size_t size = BuildSpeakerDatagram(0x1122334455667788ULL, samples, 2, out);
    const std::vector<uint8_t> expected = {
        0x02,                                           // speaker data
        0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, // time stamp in ms
        0x01, 0x02, 0xFF, 0xFE,                         // frame 0: left, right
        0x7F, 0xFF, 0x80, 0x00,                         // frame 1
    };
    EXPECT_EQ(std::vector<uint8_t>(out, out + size), expected);
}

TEST(DriverDatagramsTest, SpeakerDatagramHoldsAtMost882Frames)
{
    std::vector<int16_t> samples(2 * 1000, 1);
    std::vector<uint8_t> out(kMaxSpeakerDatagram + 100, 0xEE);
    EXPECT_EQ(BuildSpeakerDatagram(7, samples.data(), 1000, out.data()), 3537u);
    EXPECT_EQ(out[3537], 0xEE);
    EXPECT_EQ(BuildSpeakerDatagram(7, samples.data(), 0, out.data()), 9u);
}

TEST(DriverDatagramsTest, AddressMessageNamesTheKyrAndTheBasePort)
{
    const std::vector<uint8_t> message = {
        0xC0, 0xA8, 0x01, 0x02,                         // 192.168.1.2
        0x1B, 0x58,                                     // base port 7000
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, // text length
        'a',  'b',  'c',                                // the password
    };
    RelayAddress address;
    ASSERT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::Ok);
    EXPECT_EQ(address.ip, 0xC0A80102u);
    EXPECT_EQ(DottedAddress(address.ip), "192.168.1.2");
    EXPECT_EQ(address.basePort, 7000);
    EXPECT_EQ(address.password, "abc");
    EXPECT_FALSE(address.goodbye);
}

TEST(DriverDatagramsTest, AllZeroAddressMessageSaysGoodbye)
{
    const std::vector<uint8_t> message(14, 0);
    RelayAddress address;
    ASSERT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::Ok);
    EXPECT_TRUE(address.goodbye);
}

TEST(DriverDatagramsTest, AddressOfZeroWithAPortStillNamesTheRelay)
{
    // A Kyr address that wasn't dotted-quad comes as 0; the port counts.
    std::vector<uint8_t> message(14, 0);
    message[5] = 100;
    RelayAddress address;
    ASSERT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::Ok);
    EXPECT_FALSE(address.goodbye);
    EXPECT_EQ(address.basePort, 100);
    EXPECT_EQ(address.password, "");
}

TEST(DriverDatagramsTest, BrokenAddressMessagesAreRefused)
{
    RelayAddress address;
    address.basePort = 1;
    std::vector<uint8_t> message(13, 0);
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::TooShort);
    // Says 2 bytes of text, holds 1; then says 1 and holds 2.
    message = {127, 0, 0, 1, 0x1B, 0x58, 0, 0, 0, 0, 0, 0, 0, 2, 'x'};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address),
              AddressParse::LengthMismatch);
    message = {127, 0, 0, 1, 0x1B, 0x58, 0, 0, 0, 0, 0, 0, 0, 1, 'x', 'y'};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address),
              AddressParse::LengthMismatch);
    // A length so large that adding it to anything would wrap.
    message = {127, 0, 0, 1, 0x1B, 0x58, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address),
              AddressParse::LengthMismatch);
    // Port 0 with an address, and a port whose + 8 isn't one.
    message = {127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::BadPort);
    message = {127, 0, 0, 1, 0xFF, 0xF8, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::BadPort);
    message = {127, 0, 0, 1, 0xFF, 0xF7, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(ParseRelayAddress(message.data(), message.size(), &address), AddressParse::Ok);
    EXPECT_EQ(address.basePort, 65527);
    EXPECT_STREQ(AddressParseText(AddressParse::TooShort), "too short");
}

TEST(DriverDatagramsTest, MicrophoneDatagramIsStampInFramesThenSamples)
{
    const std::vector<uint8_t> datagram = {
        0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x03, 0x60, // stamp 0x100000360 frames
        0x01, 0x02, 0xFF, 0xFE,                         // frame 0
        0x80, 0x00, 0x7F, 0xFF,                         // frame 1
        0xAA, 0xBB, 0xCC,                               // not a whole frame
    };
    uint64_t stamp = 0;
    size_t frames = 0;
    ASSERT_TRUE(ParseMicrophoneHeader(datagram.data(), datagram.size(), &stamp, &frames));
    EXPECT_EQ(stamp, 0x100000360ULL);
    EXPECT_EQ(frames, 2u);
    int16_t samples[4] = {};
    ReadMicrophoneSamples(datagram.data(), frames, samples);
    EXPECT_EQ(samples[0], 0x0102);
    EXPECT_EQ(samples[1], -2);
    EXPECT_EQ(samples[2], -32768);
    EXPECT_EQ(samples[3], 0x7FFF);
    EXPECT_FALSE(ParseMicrophoneHeader(datagram.data(), 7, &stamp, &frames));
    ASSERT_TRUE(ParseMicrophoneHeader(datagram.data(), 8, &stamp, &frames));
    EXPECT_EQ(frames, 0u);
}
