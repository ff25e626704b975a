#include "Common/Platform/Src/Result.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

struct ResultRow
{
    uint32_t code;
    const char* text;
};

const ResultRow kRows[] = {
    {0x80000000u, "general failure"},
    {0x80000001u, "invalid pointer"},
    {0x80000002u, "operation cancelled"},
    {0x80000003u, "invalid argument"},
    {0x80000004u, "invalid id"},
    {0x80000005u, "asynchronous timeout"},
    {0x80000006u, "not connected"},
    {0x80000007u, "network timeout "},
    {0x80000008u, "network connection failure"},
    {0x80000009u, "no database connection"},
    {0x8000000Au, "invalid schema"},
    {0x8000000Bu, "uninitialized"},
    {0x8000000Cu, "already initialized"},
    {0x8000000Du, "not implemented"},
    {0x8000000Eu, "DirectX error"},
    {0x8000000Fu, "type check error"},
    {0x80000010u, "blending disabled"},
    {0x80000011u, "server initialization"},
    {0x80000012u, "injection failed"},
    {0x80000013u, "Aero not enabled"},
    {0x80000014u, "no pixel engine"},
    {0x80000016u, "display mismatch"},
    {0x80000017u, "no channels"},
    {0x80000018u, "too many channels"},
    {0x80000019u, "http open failure"},
    {0x8000001Au, "http connection failure"},
    {0x8000001Bu, "http open request failure"},
    {0x8000001Cu, "http send request failure"},
    {0x8000001Du, "http receive response failure"},
    {0x8000001Eu, "http query headers failure"},
    {0x8000001Fu, "http query data available failure"},
    {0x80000020u, "decompression failure"},
    {0x80000021u, "display not found"},
    {0x80000026u, "not in push state"},
    {0x80000027u, "no topology data"},
    {0x80000028u, "no display for dimensions"},
    {0x80000029u, "calibration capture failure"},
    {0x8000002Au, "detection of points failure"},
    {0x8000002Bu, "uniformity computation failure"},
    {0x8000002Cu, "autofit failure"},
    {0x8000002Du, "camera snapshot failure"},
    {0x8000002Eu, "camera did not detect all calibration dots"},
    {0x8000002Fu, "value does not exist"},
    {0x80000030u, "model is not supported"},
    {0x80000031u, "camera not found"},
    {0x80000032u, "mask is invalid"},
    {0x80000033u, "overlap region is too small"},
    {0x80000034u, "memory allocation failed"},
    {0x80000035u, "data is too big"},
    {0x80000036u, "width or height is zero"},
    {0x80000037u, "protocol version mismatch"},
    {0x80000038u, "specified file not found"},
    {0x80000039u, "network connection not found"},
    {0x8000003Au, "Unknown Result"},
    {0x8000003Bu, "connection not ready for write"},
    {0x8000003Cu, "invalid object id"},
    {0x8000003Eu, "socket error"},
    {0x8000003Fu, "invalid method id"},
    {0x80000040u, "not authorized"},
    {0x80000041u, "opengl error"},
    {0x80000048u, "no more input"},
    {0x80000049u, "scan already running"},
};

int AsResult(uint32_t code)
{
    return static_cast<int>(code);
}

TEST(ResultToString, SuccessIsNoError)
{
    EXPECT_STREQ("no error", RESULT_TO_STRING(0));
}

TEST(ResultToString, OneIsUnexpectedResult)
{
    EXPECT_STREQ("unexpected result", RESULT_TO_STRING(1));
}

TEST(ResultToString, TwoIsUnknownResult)
{
    EXPECT_STREQ("Unknown Result", RESULT_TO_STRING(2));
}

TEST(ResultToString, EveryTableRowHasItsText)
{
    for (const ResultRow& row : kRows) {
        SCOPED_TRACE(row.code);
        EXPECT_STREQ(row.text, RESULT_TO_STRING(AsResult(row.code)));
    }
}

TEST(ResultToString, NetworkTimeoutKeepsItsTrailingBlank)
{
    EXPECT_EQ(std::string("network timeout "), RESULT_TO_STRING(AsResult(0x80000007u)));
}

TEST(ResultToString, CodesInTheGapsAreUnknown)
{
    for (const uint32_t code : {0x80000015u, 0x80000022u, 0x80000023u, 0x80000024u, 0x80000025u,
                                0x8000003Du, 0x80000042u, 0x80000047u, 0x8000004Au}) {
        SCOPED_TRACE(code);
        EXPECT_STREQ("Unknown Result", RESULT_TO_STRING(AsResult(code)));
    }
}

TEST(ResultToString, OtherValuesAreUnknown)
{
    EXPECT_STREQ("Unknown Result", RESULT_TO_STRING(-1));
    EXPECT_STREQ("Unknown Result", RESULT_TO_STRING(0x7FFFFFFF));
    EXPECT_STREQ("Unknown Result", RESULT_TO_STRING(1000));
}

TEST(ResultToString, TextIsConstantAcrossCalls)
{
    EXPECT_EQ(RESULT_TO_STRING(AsResult(0x80000001u)), RESULT_TO_STRING(AsResult(0x80000001u)));
}

} // namespace
