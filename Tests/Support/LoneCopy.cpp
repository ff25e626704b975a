#include "Tests/Support/LoneCopy.h"

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TempDir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace velorane::test {

namespace {

using namespace std::chrono_literals;

constexpr const char* kInCopy = "VELORANE_TEST_IN_LONE_COPY";

} // namespace

bool RanInALoneCopy()
{
    if (std::getenv(kInCopy)) {
        return false;
    }
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error || !test) {
        ADD_FAILURE() << "can't find this test's executable";
        return true;
    }
    TempDir dir;
    // A hard link is as good as a copy, /proc/self/exe names the path it
    // was started by; a copy where the folders lie on different devices.
    const std::string copy = dir.File(self.filename().string());
    if (link(self.c_str(), copy.c_str()) != 0) {
        fs::copy_file(self, copy, error);
        if (error) {
            ADD_FAILURE() << "can't copy " << self << ": " << error.message();
            return true;
        }
    }
    ChildProcess child;
    ChildProcess::Options options;
    options.argv = {copy,
                    std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()};
    options.environment = {{kInCopy, "1"}};
    options.outputFile = dir.File("copy.out");
    int code = -1;
    if (!child.Start(options) || !child.WaitForExit(100s, &code)) {
        ADD_FAILURE() << "the lone copy didn't run to its end\n" << child.Output();
        return true;
    }
    EXPECT_EQ(code, 0) << child.Output();
    return true;
}

} // namespace velorane::test
