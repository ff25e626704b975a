#include "Common/Platform/Src/Result.h"
#include "Common/Platform/Src/UUID.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

using quorvan::IDataStream;
using quorvan::IDataStreamV1;
using quorvan::UUID;

namespace {

enum class Width
{
    Bits8,
    Bits16,
    Bits32,
};

using Call = std::pair<Width, uint32_t>;

// Records each typed write, and answers typed reads from a script, noting
// the width each read asked for. Every call returns the configured result.
template <typename Interface> class RecordingStream : public Interface
{
public:
    RESULT WriteUInt8(uint8_t value) override { return Record(Width::Bits8, value); }
    RESULT WriteUInt16(uint16_t value) override { return Record(Width::Bits16, value); }
    RESULT WriteUInt32(uint32_t value) override { return Record(Width::Bits32, value); }
    RESULT ReadUInt8(uint8_t& value) override
    {
        value = static_cast<uint8_t>(Next(Width::Bits8));
        return m_answer;
    }
    RESULT ReadUInt16(uint16_t& value) override
    {
        value = static_cast<uint16_t>(Next(Width::Bits16));
        return m_answer;
    }
    RESULT ReadUInt32(uint32_t& value) override
    {
        value = Next(Width::Bits32);
        return m_answer;
    }

    std::vector<Call> writes;
    std::vector<Width> reads;
    std::deque<uint32_t> script;

    void AnswerWith(RESULT answer) { m_answer = answer; }

private:
    RESULT Record(Width width, uint32_t value)
    {
        writes.emplace_back(width, value);
        return m_answer;
    }
    uint32_t Next(Width width)
    {
        reads.push_back(width);
        if (script.empty()) {
            return 0;
        }
        const uint32_t value = script.front();
        script.pop_front();
        return value;
    }

    RESULT m_answer = quorvan::Success;
};

const std::vector<Call> kExpectedWrites = {
    {Width::Bits32, 0x12345678u}, // data1
    {Width::Bits16, 0x9ABCu},     // data2
    {Width::Bits16, 0xDEF0u},     // data3
    {Width::Bits8, 0x01u},        // data4[0], the most significant byte
    {Width::Bits8, 0x02u},        {Width::Bits8, 0x03u}, {Width::Bits8, 0x04u},
    {Width::Bits8, 0x05u},        {Width::Bits8, 0x06u}, {Width::Bits8, 0x07u},
    {Width::Bits8, 0x08u}, // data4[7]
};

const std::vector<Width> kExpectedReads = {
    Width::Bits32, Width::Bits16, Width::Bits16, Width::Bits8, Width::Bits8, Width::Bits8,
    Width::Bits8,  Width::Bits8,  Width::Bits8,  Width::Bits8, Width::Bits8};

const std::deque<uint32_t> kScript = {0x12345678u, 0x9ABCu, 0xDEF0u, 1, 2, 3, 4, 5, 6, 7, 8};

const UUID kSample(0x12345678u, 0x9ABCu, 0xDEF0u, 0x0102030405060708ull);

TEST(UuidSerialize, SerializeOutWritesFieldsInOrder)
{
    RecordingStream<IDataStream> stream;
    EXPECT_EQ(quorvan::Success, kSample.SerializeOut(static_cast<IDataStream*>(&stream)));
    EXPECT_EQ(kExpectedWrites, stream.writes);
    EXPECT_TRUE(stream.reads.empty());
}

TEST(UuidSerialize, SerializeOutV1WritesFieldsInOrder)
{
    RecordingStream<IDataStreamV1> stream;
    EXPECT_EQ(quorvan::Success, kSample.SerializeOut(static_cast<IDataStreamV1*>(&stream)));
    EXPECT_EQ(kExpectedWrites, stream.writes);
}

TEST(UuidSerialize, SerializeInReadsFieldsInOrder)
{
    RecordingStream<IDataStream> stream;
    stream.script = kScript;
    UUID uuid;
    EXPECT_EQ(quorvan::Success, uuid.SerializeIn(static_cast<IDataStream*>(&stream)));
    EXPECT_EQ(kExpectedReads, stream.reads);
    EXPECT_EQ(kSample, uuid);
    EXPECT_TRUE(stream.writes.empty());
}

TEST(UuidSerialize, SerializeInV1ReadsFieldsInOrder)
{
    RecordingStream<IDataStreamV1> stream;
    stream.script = kScript;
    UUID uuid;
    EXPECT_EQ(quorvan::Success, uuid.SerializeIn(static_cast<IDataStreamV1*>(&stream)));
    EXPECT_EQ(kExpectedReads, stream.reads);
    EXPECT_EQ(kSample, uuid);
}

TEST(UuidSerialize, NullStreamIsInvalidPointer)
{
    UUID uuid = kSample;
    const RESULT invalidPointer = quorvan::ResultCode(0x80000001u);
    EXPECT_EQ(invalidPointer, uuid.SerializeOut(static_cast<IDataStream*>(nullptr)));
    EXPECT_EQ(invalidPointer, uuid.SerializeOut(static_cast<IDataStreamV1*>(nullptr)));
    EXPECT_EQ(invalidPointer, uuid.SerializeIn(static_cast<IDataStream*>(nullptr)));
    EXPECT_EQ(invalidPointer, uuid.SerializeIn(static_cast<IDataStreamV1*>(nullptr)));
    EXPECT_EQ(kSample, uuid);
}

TEST(UuidSerialize, StreamFailuresAreNotPassedOn)
{
    RecordingStream<IDataStream> stream;
    stream.AnswerWith(quorvan::ResultGeneralFailure);
    EXPECT_EQ(quorvan::Success, kSample.SerializeOut(static_cast<IDataStream*>(&stream)));
    EXPECT_EQ(kExpectedWrites, stream.writes);
    UUID uuid;
    stream.script = kScript;
    EXPECT_EQ(quorvan::Success, uuid.SerializeIn(static_cast<IDataStream*>(&stream)));
    EXPECT_EQ(kSample, uuid);
}

TEST(UuidSerialize, OutThenInRoundTrips)
{
    RecordingStream<IDataStream> stream;
    kSample.SerializeOut(static_cast<IDataStream*>(&stream));
    for (const Call& call : stream.writes) {
        stream.script.push_back(call.second);
    }
    UUID copy;
    copy.SerializeIn(static_cast<IDataStream*>(&stream));
    EXPECT_EQ(kSample, copy);
}

} // namespace
