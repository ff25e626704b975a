#include "Common/Platform/Src/Platform.h"
#include "Common/Platform/Src/UUID.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

using quorvan::UUID;

namespace {

// RFC 4122 version 4: version nibble 4, variant bits 10.
void ExpectVersion4(const UUID& uuid)
{
    EXPECT_EQ(0x4u, static_cast<unsigned>(uuid.data3 >> 12)) << uuid.str();
    EXPECT_EQ(0x80u, static_cast<unsigned>(uuid.data4[0] & 0xC0)) << uuid.str();
}

TEST(UuidGenerate, PlatformUuidHasVersion4AndVariantBits)
{
    for (int i = 0; i < 200; ++i) {
        ExpectVersion4(quorvan::platform::GenerateUuid());
    }
}

TEST(UuidGenerate, GenerateThroughSchedulerHasVersion4AndVariantBits)
{
    for (int i = 0; i < 200; ++i) {
        ExpectVersion4(UUID::Generate());
    }
}

TEST(UuidGenerate, TwoGeneratedDiffer)
{
    const UUID first = UUID::Generate();
    const UUID second = UUID::Generate();
    EXPECT_NE(first, second);
    EXPECT_NE(quorvan::platform::GenerateUuid(), quorvan::platform::GenerateUuid());
}

TEST(UuidGenerate, ManyGeneratedAreAllDistinct)
{
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        seen.insert(UUID::Generate().str());
    }
    EXPECT_EQ(1000u, seen.size());
}

TEST(UuidGenerate, TextFormIs36LowerCaseCharacters)
{
    const std::string text = UUID::Generate().str();
    ASSERT_EQ(36u, text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            EXPECT_EQ('-', text[i]) << text;
        } else {
            EXPECT_TRUE((text[i] >= '0' && text[i] <= '9') || (text[i] >= 'a' && text[i] <= 'f'))
                << text;
        }
    }
    EXPECT_EQ('4', text[14]) << text;
    EXPECT_NE(std::string::npos, std::string("89ab").find(text[19])) << text;
}

TEST(UuidGenerate, ThreadsGenerateDistinctValues)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<std::vector<UUID>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&made, t] {
            for (int i = 0; i < kEach; ++i) {
                made[t].push_back(UUID::Generate());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<UUID> seen;
    for (const std::vector<UUID>& batch : made) {
        for (const UUID& uuid : batch) {
            ExpectVersion4(uuid);
            seen.insert(uuid);
        }
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kEach), seen.size());
}

TEST(UuidGenerate, GeneratedTextParsesBackEqual)
{
    const UUID generated = UUID::Generate();
    EXPECT_EQ(generated, UUID(generated.str()));
}

} // namespace
