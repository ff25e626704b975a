// The relay's command line, parsed the way the process entry parses it, and
// the configuration's own helpers.

#include "Clients/Conference/RelayConfig.h"

#include <CLI/CLI.hpp>

#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <iostream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace velorane::test {
namespace {

using quorvan::velorane::relay::RelayConfig;

// Parses args (without the program name) into config exactly as main does.
void Parse(RelayConfig& config, const std::vector<std::string>& args)
{
    CLI::App app{"Velorane Conference", ""};
    config.AddOptions(app);
    std::vector<const char*> argv{"velorane-relay"};
    for (const auto& arg : args) {
        argv.push_back(arg.c_str());
    }
    config.ParseCommandLine(app, static_cast<int>(argv.size()), argv.data());
}

RelayConfig Parsed(const std::vector<std::string>& args)
{
    RelayConfig config;
    Parse(config, args);
    return config;
}

// Redirects std::cout and std::cerr into strings for the life of the object.
class CapturedStandardStreams
{
public:
    CapturedStandardStreams()
        : m_oldOut(std::cout.rdbuf(m_out.rdbuf())), m_oldErr(std::cerr.rdbuf(m_err.rdbuf()))
    {
    }
    ~CapturedStandardStreams()
    {
        std::cout.rdbuf(m_oldOut);
        std::cerr.rdbuf(m_oldErr);
    }
    CapturedStandardStreams(const CapturedStandardStreams&) = delete;
    CapturedStandardStreams& operator=(const CapturedStandardStreams&) = delete;

    std::string Out() const { return m_out.str(); }
    std::string Err() const { return m_err.str(); }

private:
    std::ostringstream m_out;
    std::ostringstream m_err;
    std::streambuf* m_oldOut;
    std::streambuf* m_oldErr;
};

TEST(UnitRelayConfigTest, NoArgumentsKeepTheDefaults)
{
    const RelayConfig config = Parsed({});

    EXPECT_EQ(config.windowName, "");
    EXPECT_EQ(config.kyrIp, "");
    EXPECT_EQ(config.kyrPort, 0);
    EXPECT_EQ(config.windowWidth, 1280);
    EXPECT_EQ(config.windowHeight, 720);
    EXPECT_EQ(config.relayPassword, "");
    EXPECT_FALSE(config.useTcp);
    EXPECT_FALSE(config.standalone);
    EXPECT_TRUE(config.useMonitor);
    EXPECT_TRUE(config.shouldCreateWindow);
    EXPECT_TRUE(config.tunnelConfig.enabled);
    EXPECT_TRUE(config.tunnelConfig.secure);
    EXPECT_EQ(config.tunnelConfig.kyrIp, "");
    EXPECT_EQ(config.tunnelConfig.port, 0);
    EXPECT_EQ(config.tunnelConfig.password, "");
}

TEST(UnitRelayConfigTest, EveryOptionSetsItsField)
{
    const RelayConfig config =
        Parsed({"--name", "Room 4", "--kyrIp", "192.168.7.20", "--relayPort", "4100",
                "--relayPassword", "hunter2", "--width", "1920", "--height", "1080"});

    EXPECT_EQ(config.windowName, "Room 4");
    EXPECT_EQ(config.kyrIp, "192.168.7.20");
    EXPECT_EQ(config.kyrPort, 4100);
    EXPECT_EQ(config.relayPassword, "hunter2");
    EXPECT_EQ(config.windowWidth, 1920);
    EXPECT_EQ(config.windowHeight, 1080);
    // Options alone leave the flags and the tunnel entry as they were.
    EXPECT_FALSE(config.useTcp);
    EXPECT_FALSE(config.standalone);
    EXPECT_TRUE(config.useMonitor);
    EXPECT_TRUE(config.shouldCreateWindow);
    EXPECT_EQ(config.tunnelConfig.kyrIp, "");
    EXPECT_EQ(config.tunnelConfig.port, 0);
    EXPECT_EQ(config.tunnelConfig.password, "");
}

TEST(UnitRelayConfigTest, ShortPositiveFlagsSetTheirFields)
{
    const RelayConfig config = Parsed({"-t", "-n"});

    EXPECT_TRUE(config.useTcp);
    EXPECT_TRUE(config.standalone);
    EXPECT_TRUE(config.useMonitor);
    EXPECT_TRUE(config.shouldCreateWindow);
}

TEST(UnitRelayConfigTest, LongPositiveFlagsSetTheirFields)
{
    const RelayConfig config = Parsed({"--use-tcp", "--standalone"});

    EXPECT_TRUE(config.useTcp);
    EXPECT_TRUE(config.standalone);
}

// One negated flag as written on the command line, and the field it clears.
struct NegatedFlag
{
    const char* argument;
    std::function<bool(const RelayConfig&)> field;
};

// Names the parameter by its argument in test output.
void PrintTo(const NegatedFlag& flag, std::ostream* os)
{
    *os << flag.argument;
}

class UnitRelayConfigNegatedFlagTest : public ::testing::TestWithParam<NegatedFlag>
{
};

TEST_P(UnitRelayConfigNegatedFlagTest, ClearsOnlyItsField)
{
    const RelayConfig config = Parsed({GetParam().argument});

    EXPECT_FALSE(GetParam().field(config));
    // The other three stay true.
    int cleared = 0;
    cleared += config.useMonitor ? 0 : 1;
    cleared += config.tunnelConfig.enabled ? 0 : 1;
    cleared += config.shouldCreateWindow ? 0 : 1;
    cleared += config.tunnelConfig.secure ? 0 : 1;
    EXPECT_EQ(cleared, 1);
    EXPECT_FALSE(config.useTcp);
    EXPECT_FALSE(config.standalone);
}

INSTANTIATE_TEST_SUITE_P(
    AllForms, UnitRelayConfigNegatedFlagTest,
    ::testing::Values(
        NegatedFlag{"-m", [](const RelayConfig& c) { return c.useMonitor; }},
        NegatedFlag{"--no-monitor", [](const RelayConfig& c) { return c.useMonitor; }},
        NegatedFlag{"-u", [](const RelayConfig& c) { return c.tunnelConfig.enabled; }},
        NegatedFlag{"--no-usbip", [](const RelayConfig& c) { return c.tunnelConfig.enabled; }},
        NegatedFlag{"-l", [](const RelayConfig& c) { return c.shouldCreateWindow; }},
        NegatedFlag{"--no-window", [](const RelayConfig& c) { return c.shouldCreateWindow; }},
        NegatedFlag{"--insecure-usbip",
                    [](const RelayConfig& c) { return c.tunnelConfig.secure; }}),
    [](const ::testing::TestParamInfo<NegatedFlag>& info) {
        std::string name;
        for (const char* p = info.param.argument; *p; ++p) {
            if (std::isalnum(static_cast<unsigned char>(*p))) {
                name += *p;
            }
        }
        return name;
    });

TEST(UnitRelayConfigTest, ExclamationMarkOnTheCommandLineIsNotTheFlag)
{
    RelayConfig config;
    EXPECT_THROW(Parse(config, {"!-m"}), CLI::ParseError);
    EXPECT_TRUE(config.useMonitor);
}

TEST(UnitRelayConfigTest, SameFlagTwiceGivesTheSingleFlagValue)
{
    RelayConfig config;
    ASSERT_NO_THROW(Parse(config, {"-m", "-m", "-t", "-t", "--no-window", "--no-window"}));

    EXPECT_FALSE(config.useMonitor);
    EXPECT_TRUE(config.useTcp);
    EXPECT_FALSE(config.shouldCreateWindow);
}

TEST(UnitRelayConfigTest, HighestPortWrapsForTunnelAndTcp)
{
    RelayConfig config = Parsed({"--relayPort", "65535"});
    ASSERT_EQ(config.kyrPort, 65535);

    config.CompleteTunnelConfig();

    EXPECT_EQ(config.tunnelConfig.port, 4);
    // The TCP transport's port, as the application object computes it.
    EXPECT_EQ(static_cast<uint16_t>((config.kyrPort + 3) & 0xFFFF), 2);
}

TEST(UnitRelayConfigTest, PortAbove16BitsIsRefused)
{
    RelayConfig config;
    EXPECT_THROW(Parse(config, {"--relayPort", "70000"}), CLI::ParseError);
}

TEST(UnitRelayConfigTest, NonNumericWidthIsRefused)
{
    RelayConfig config;
    EXPECT_THROW(Parse(config, {"--width", "abc"}), CLI::ParseError);
}

TEST(UnitRelayConfigTest, OptionWithoutValueIsRefused)
{
    RelayConfig config;
    EXPECT_THROW(Parse(config, {"--kyrIp"}), CLI::ParseError);
}

TEST(UnitRelayConfigTest, UnknownOptionIsRefused)
{
    RelayConfig config;
    EXPECT_THROW(Parse(config, {"--frobnicate"}), CLI::ParseError);
}

TEST(UnitRelayConfigTest, NegatedFlagWithANumberPast64BitsIsRefused)
{
    // CLI11 lets the conversion's std::out_of_range through for these; the
    // relay refuses the line as it refuses any value that doesn't convert.
    for (const char* flag : {"--no-monitor", "--no-usbip", "--no-window", "--insecure-usbip"}) {
        RelayConfig config;
        CLI::App app{"Velorane Conference", ""};
        config.AddOptions(app);
        const std::string word = std::string(flag) + "=-5555555555555555555555";
        const char* argv[] = {"velorane-relay", word.c_str()};
        try {
            config.ParseCommandLine(app, 2, argv);
            ADD_FAILURE() << flag << " was taken";
        } catch (const CLI::ParseError& e) {
            std::ostringstream out;
            std::ostringstream err;
            EXPECT_NE(app.exit(e, out, err), 0) << flag;
            EXPECT_EQ(out.str(), "") << flag;
            EXPECT_EQ(err.str(), "Could not convert: a flag's value is out of range\n"
                                 "Run with --help for more information.\n")
                << flag;
        }
    }
}

TEST(UnitRelayConfigTest, HelpPrintsUsageWithoutDefaultsAndExitsWithZero)
{
    RelayConfig config;
    CLI::App app{"Velorane Conference", ""};
    config.AddOptions(app);
    const char* argv[] = {"velorane-relay", "--help"};

    CapturedStandardStreams streams;
    int code = -1;
    bool calledForHelp = false;
    try {
        app.parse(2, argv);
    } catch (const CLI::CallForHelp& e) {
        calledForHelp = true;
        code = app.exit(e);
    } catch (const CLI::ParseError& e) {
        code = app.exit(e);
    }

    EXPECT_TRUE(calledForHelp);
    EXPECT_EQ(code, 0);
    const std::string help = streams.Out();
    EXPECT_EQ(streams.Err(), "");
    for (const char* expected :
         {"Velorane Conference", "-h,--help", "Print this help message and exit", "--name TEXT",
          "--kyrIp TEXT", "--relayPort UINT", "--relayPassword TEXT", "--width INT", "--height INT",
          "-t,--use-tcp", "-n,--standalone", "--no-monitor", "--no-usbip", "--no-window",
          "--insecure-usbip"}) {
        EXPECT_NE(help.find(expected), std::string::npos) << "missing: " << expected << "\n"
                                                          << help;
    }
    // No defaults: neither the picture size nor the port appears.
    EXPECT_EQ(help.find("1280"), std::string::npos) << help;
    EXPECT_EQ(help.find("720"), std::string::npos) << help;
    EXPECT_EQ(help.find("=0"), std::string::npos) << help;
    EXPECT_EQ(help.find("[0]"), std::string::npos) << help;
    EXPECT_EQ(help.find("REQUIRED"), std::string::npos) << help;
}

TEST(UnitRelayConfigTest, PrintGivesTheDefaultLine)
{
    const RelayConfig config;
    std::string out;

    config.Print(out);

    EXPECT_EQ(out, "windowWidth=[1280] windowHeight=[720] windowName=[] kyrIp=[] kyrPort=[0] "
                   "shouldCreateWindow=[1]");
}

TEST(UnitRelayConfigTest, PrintReplacesThePreviousContents)
{
    RelayConfig config;
    config.windowWidth = 1920;
    config.windowHeight = 1080;
    config.windowName = "Room 4";
    config.kyrIp = "10.1.2.3";
    config.kyrPort = 65535;
    config.shouldCreateWindow = false;
    config.relayPassword = "hunter2";
    std::string out = "something already here";

    config.Print(out);

    // The password is no part of the line.
    EXPECT_EQ(out, "windowWidth=[1920] windowHeight=[1080] windowName=[Room 4] kyrIp=[10.1.2.3] "
                   "kyrPort=[65535] shouldCreateWindow=[0]");
}

TEST(UnitRelayConfigTest, CompleteTunnelConfigCopiesAddressPasswordAndPort)
{
    RelayConfig config = Parsed(
        {"--kyrIp", "10.0.0.9", "--relayPassword", "s3cret", "--relayPort", "4000", "--no-usbip"});

    config.CompleteTunnelConfig();

    EXPECT_EQ(config.tunnelConfig.kyrIp, "10.0.0.9");
    EXPECT_EQ(config.tunnelConfig.password, "s3cret");
    EXPECT_EQ(config.tunnelConfig.port, 4005);
    EXPECT_FALSE(config.tunnelConfig.enabled);
    EXPECT_TRUE(config.tunnelConfig.secure);
}

TEST(UnitRelayConfigTest, CopyOwnsItsStrings)
{
    RelayConfig config = Parsed({"--name", "Room 4"});
    const RelayConfig copy = config;

    config.windowName = "changed";

    EXPECT_EQ(copy.windowName, "Room 4");
}

} // namespace
} // namespace velorane::test
