#include "Common/Platform/Src/UUID.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

using quorvan::UUID;

namespace {

TEST(Uuid, DefaultIsAllZero)
{
    const UUID uuid;
    EXPECT_EQ(0u, uuid.data1);
    EXPECT_EQ(0u, uuid.data2);
    EXPECT_EQ(0u, uuid.data3);
    for (const uint8_t byte : uuid.data4) {
        EXPECT_EQ(0u, byte);
    }
    EXPECT_EQ("00000000-0000-0000-0000-000000000000", uuid.str());
}

TEST(Uuid, NumericConstructorStoresData4MostSignificantByteFirst)
{
    const UUID uuid(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);
    EXPECT_EQ(0x12345678u, uuid.data1);
    EXPECT_EQ(0x9ABCu, uuid.data2);
    EXPECT_EQ(0xDEF0u, uuid.data3);
    const uint8_t expected[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), std::begin(uuid.data4)));
}

TEST(Uuid, TextFormIsLowerCaseHexWithoutBraces)
{
    const UUID uuid(0xABCDEF01u, 0x23ABu, 0xCDEFu, 0x89ABCDEF01234567ull);
    EXPECT_EQ("abcdef01-23ab-cdef-89ab-cdef01234567", uuid.str());
    EXPECT_EQ(36u, uuid.str().size());
}

TEST(Uuid, TextFormPadsEveryGroupWithZeros)
{
    const UUID uuid(0x1u, 0x2u, 0x3u, 0x0000000000000004ull);
    EXPECT_EQ("00000001-0002-0003-0000-000000000004", uuid.str());
}

TEST(Uuid, UuidToStringWritesTheTextForm)
{
    const UUID uuid(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);
    std::string text = "old";
    uuid.UUIDToString(text);
    EXPECT_EQ("12345678-9abc-def0-0102-030405060708", text);
}

TEST(Uuid, WideFormsMatchTheTextForm)
{
    const UUID uuid(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);
    std::wstring text = L"old";
    uuid.UUIDToWideString(text);
    EXPECT_EQ(L"12345678-9abc-def0-0102-030405060708", text);
    EXPECT_EQ(L"12345678-9abc-def0-0102-030405060708", uuid.wstr());
    EXPECT_EQ(L"12345678-9abc-def0-0102-030405060708", static_cast<std::wstring>(uuid));
}

TEST(Uuid, StringConversionAndStreamOutputGiveTheTextForm)
{
    const UUID uuid(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);
    EXPECT_EQ("12345678-9abc-def0-0102-030405060708", static_cast<std::string>(uuid));
    std::ostringstream stream;
    stream << uuid;
    EXPECT_EQ("12345678-9abc-def0-0102-030405060708", stream.str());
}

TEST(Uuid, TextRoundTripComparesEqual)
{
    const UUID original(0xFEDCBA98u, 0x7654u, 0x3210u, 0x0011223344556677ull);
    const UUID parsed(original.str());
    EXPECT_EQ(original, parsed);
    EXPECT_EQ(original.str(), parsed.str());
}

TEST(Uuid, ParsingFillsEveryField)
{
    const UUID uuid(std::string("12345678-9abc-def0-0102-030405060708"));
    EXPECT_EQ(UUID(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull), uuid);
}

TEST(Uuid, TextWithoutDashGivesZero)
{
    EXPECT_EQ(UUID(), UUID(std::string("123456789abcdef0")));
    EXPECT_EQ(UUID(), UUID(std::string("")));
}

TEST(Uuid, UpperCaseDigitsAreAcceptedAndPrintedLowerCase)
{
    const UUID uuid(std::string("ABCDEF01-23AB-CDEF-89AB-CDEF01234567"));
    EXPECT_EQ(UUID(0xABCDEF01u, 0x23ABu, 0xCDEFu, 0x89ABCDEF01234567ull), uuid);
    EXPECT_EQ("abcdef01-23ab-cdef-89ab-cdef01234567", uuid.str());
}

TEST(Uuid, ParsingStopsAtTheFirstMissingDash)
{
    // Only data1 has a closing dash.
    EXPECT_EQ(UUID(0x12345678u, 0, 0, 0), UUID(std::string("12345678-9abc")));
    // data2 is closed, data3 isn't.
    EXPECT_EQ(UUID(0x12345678u, 0x9ABCu, 0, 0), UUID(std::string("12345678-9abc-def0")));
    // Without the dash inside the last group data4 stays zero.
    EXPECT_EQ(UUID(0x12345678u, 0x9ABCu, 0xDEF0u, 0),
              UUID(std::string("12345678-9abc-def0-0102030405060708")));
}

TEST(Uuid, ParsingReadsHexWithoutChecks)
{
    // "xyz" has no digits and reads as 0; "12g" reads as far as the digits go.
    const UUID uuid(std::string("xyz-12g-34-56-78"));
    EXPECT_EQ(UUID(0, 0x12u, 0x34u, 0x5678ull), uuid);
}

TEST(Uuid, ParsingJoinsTheTextAroundTheFourthDash)
{
    // data4 reads "45-6", which stops at the dash.
    EXPECT_EQ(UUID(1, 2, 3, 0x45ull), UUID(std::string("1-2-3-4-5-6")));
    // Short groups are read as numbers, not as positions.
    EXPECT_EQ(UUID(1, 2, 3, 0x45ull), UUID(std::string("1-2-3-4-5")));
}

TEST(Uuid, AssignmentFromTextParsesAndClearsFirst)
{
    UUID uuid(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);
    uuid = std::string("0000000a-000b-000c-000d-00000000000e");
    EXPECT_EQ(UUID(0xAu, 0xBu, 0xCu, 0x000D00000000000Eull), uuid);
    uuid = std::string("no dash here");
    EXPECT_EQ(UUID(), uuid);
}

TEST(Uuid, EqualityComparesAllFields)
{
    const UUID base(1, 2, 3, 4);
    EXPECT_TRUE(base == UUID(1, 2, 3, 4));
    EXPECT_FALSE(base != UUID(1, 2, 3, 4));
    EXPECT_TRUE(base != UUID(9, 2, 3, 4));
    EXPECT_TRUE(base != UUID(1, 9, 3, 4));
    EXPECT_TRUE(base != UUID(1, 2, 9, 4));
    EXPECT_TRUE(base != UUID(1, 2, 3, 9));
    EXPECT_TRUE(base != UUID(1, 2, 3, 0x0400000000000000ull));
}

TEST(Uuid, OrderingComparesData1ThenData2ThenData3)
{
    EXPECT_TRUE(UUID(1, 9, 9, ~0ull) < UUID(2, 0, 0, 0));
    EXPECT_TRUE(UUID(1, 1, 9, ~0ull) < UUID(1, 2, 0, 0));
    EXPECT_TRUE(UUID(1, 1, 1, ~0ull) < UUID(1, 1, 2, 0));
    EXPECT_FALSE(UUID(2, 0, 0, 0) < UUID(1, 9, 9, ~0ull));
    EXPECT_FALSE(UUID(1, 2, 3, 4) < UUID(1, 2, 3, 4));
}

TEST(Uuid, OrderingSortsData4AsBigEndianNumber)
{
    // As a little-endian machine word the first would be the smaller.
    const UUID highFirstByte(0, 0, 0, 0x0100000000000000ull);
    const UUID lowLastByte(0, 0, 0, 0x00000000000000FFull);
    EXPECT_TRUE(lowLastByte < highFirstByte);
    EXPECT_FALSE(highFirstByte < lowLastByte);

    std::vector<UUID> sorted = {UUID(0, 0, 0, 0x0200000000000000ull),
                                UUID(0, 0, 0, 0x0000000000000003ull),
                                UUID(0, 0, 0, 0x0000000100000000ull)};
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(UUID(0, 0, 0, 0x0000000000000003ull), sorted[0]);
    EXPECT_EQ(UUID(0, 0, 0, 0x0000000100000000ull), sorted[1]);
    EXPECT_EQ(UUID(0, 0, 0, 0x0200000000000000ull), sorted[2]);
}

} // namespace
