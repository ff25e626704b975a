#include "Common/Logger/Src/LogHexDump.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using quorvan::logHexDump;

namespace {

std::vector<unsigned char> Bytes(unsigned count)
{
    std::vector<unsigned char> bytes(count);
    for (unsigned i = 0; i < count; ++i) {
        bytes[i] = static_cast<unsigned char>('A' + (i % 26));
    }
    return bytes;
}

size_t CountLines(const std::string& text)
{
    size_t lines = 0;
    for (char c : text) {
        lines += c == '\n';
    }
    return lines;
}

TEST(LogHexDumpTest, EmptyBufferGivesEmptyString)
{
    EXPECT_EQ(logHexDump("", 0), "");
}

TEST(LogHexDumpTest, SixteenBytesGiveOneLineWithoutPadding)
{
    const auto bytes = Bytes(16);
    EXPECT_EQ(logHexDump(bytes.data(), 16),
              "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ABCDEFGHIJKLMNOP\n");
}

TEST(LogHexDumpTest, SeventeenBytesPadTheSecondLineWithFifteenGroups)
{
    const auto bytes = Bytes(17);
    const std::string expected =
        "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ABCDEFGHIJKLMNOP\n"
        "51 " + std::string(45, ' ') + "Q\n";
    EXPECT_EQ(logHexDump(bytes.data(), 17), expected);
}

TEST(LogHexDumpTest, UnprintableBytesShowAsBlanks)
{
    const unsigned char bytes[] = {0x00, 0x7f, 'a', 0xff};
    EXPECT_EQ(logHexDump(bytes, 4), "00 7f 61 ff " + std::string(36, ' ') + "  a \n");
}

TEST(LogHexDumpTest, MoreThan160BytesAreCutToTenLines)
{
    const auto bytes = Bytes(161);
    const std::string dump = logHexDump(bytes.data(), 161);
    ASSERT_EQ(dump.rfind("truncated for size\n", 0), 0u);
    const std::string body = dump.substr(std::string("truncated for size\n").size());
    EXPECT_EQ(CountLines(body), 10u);
    EXPECT_EQ(body, logHexDump(bytes.data(), 160));
}

TEST(LogHexDumpTest, Exactly160BytesAreNotTruncated)
{
    const auto bytes = Bytes(160);
    const std::string dump = logHexDump(bytes.data(), 160);
    EXPECT_EQ(dump.find("truncated"), std::string::npos);
    EXPECT_EQ(CountLines(dump), 10u);
}

} // namespace
