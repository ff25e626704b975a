#pragma once

#include "Common/Logger/Src/FileStore.h"
#include "Common/Platform/Src/Date.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace velorane::test {

// A local clock that stands still where the test puts it. The store reads it
// on the constructing thread and on its writer; both fields are atomic so a
// test may move it between messages.
class FileStoreTestClock
{
public:
    FileStoreTestClock(int32_t year, int32_t month, int32_t day) { SetDate(year, month, day); }

    void SetDate(int32_t year, int32_t month, int32_t day)
    {
        m_date.store(year * 10000 + month * 100 + day);
    }
    void SetTime(int32_t hour, int32_t minute, int32_t second, int32_t millisecond)
    {
        m_time.store(((hour * 100 + minute) * 100 + second) * 1000 + millisecond);
    }

    quorvan::Date Now() const
    {
        const int32_t date = m_date.load();
        const int32_t time = m_time.load();
        quorvan::Date now;
        now.year = date / 10000;
        now.month = date / 100 % 100;
        now.day = date % 100;
        now.hour = time / 10000000;
        now.minute = time / 100000 % 100;
        now.second = time / 1000 % 100;
        now.millisecond = time % 1000;
        return now;
    }

    // The clock to hand to the store; it must not outlive this object.
    quorvan::FileStore::LocalClock AsClock() const
    {
        return [this] { return Now(); };
    }

private:
    std::atomic<int32_t> m_date{0};
    std::atomic<int32_t> m_time{0};
};

// The store's name for its files in these tests.
inline const std::string kLogName = "VeloraneConference";

// "<name>_<year>_<MM>_<DD>_<NN>.log", as the store names its files.
inline std::string LogFileName(const std::string& name, int year, int month, int day, int index)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "_%d_%02d_%02d_%02d.log", year, month, day, index);
    return name + buffer;
}

// The names of the entries of a folder, sorted; empty if it doesn't exist.
inline std::vector<std::string> ListNames(const std::string& folder)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace velorane::test
