// The names the relay shares with the client application.

#include "Clients/Conference/SharedConstants.h"

#include <QRegularExpression>
#include <QString>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quorvan::velorane::relay::MeetingLinkPatterns;

// The services whose patterns match a link, by whole-string match.
std::vector<std::string> ServicesMatching(const std::string& link)
{
    std::vector<std::string> services;
    for (const auto& [service, patterns] : MeetingLinkPatterns()) {
        for (const auto& pattern : patterns) {
            const QRegularExpression expression(
                QRegularExpression::anchoredPattern(QString::fromStdString(pattern)));
            if (expression.match(QString::fromStdString(link)).hasMatch()) {
                services.push_back(service);
                break;
            }
        }
    }
    return services;
}

TEST(IpcClientSharedConstantsTest, NamesAreTheClientsOwn)
{
    using namespace quorvan::velorane::relay;
    EXPECT_STREQ(kRelayServerName, "VELORANE_RELAY");
    EXPECT_STREQ(kPrimaryKey, "Primary");
    EXPECT_STREQ(kWifiKey, "Wifi");
    EXPECT_STREQ(kVlansKey, "Vlans");
    EXPECT_STREQ(kPortKey, "Port");
    EXPECT_STREQ(kScreenKey, "ScreenKey");
}

TEST(IpcClientSharedConstantsTest, MeetingLinkTableHasEveryService)
{
    std::vector<std::string> keys;
    for (const auto& entry : MeetingLinkPatterns()) {
        keys.push_back(entry.first);
    }
    // In the map's order.
    const std::vector<std::string> expected = {
        "Amazon Chime",    "BlueJeans", "GoToMeeting", "Google Meet",
        "Microsoft Teams", "NONE",      "RingCentral", "Skype For Business",
        "UberConference",  "Webex",     "Zoom"};
    EXPECT_EQ(keys, expected);
    EXPECT_TRUE(MeetingLinkPatterns().at("NONE").empty());
}

TEST(IpcClientSharedConstantsTest, EveryPatternCompiles)
{
    for (const auto& [service, patterns] : MeetingLinkPatterns()) {
        for (const auto& pattern : patterns) {
            const QRegularExpression expression(QString::fromStdString(pattern));
            EXPECT_TRUE(expression.isValid())
                << service << ": " << pattern << ": " << expression.errorString().toStdString();
        }
    }
}

TEST(IpcClientSharedConstantsTest, SampleLinksMatchTheirServiceAlone)
{
    const std::vector<std::pair<std::string, std::string>> samples = {
        {"https://us02web.zoom.us/j/81234567890?pwd=AbCdEf123", "Zoom"},
        {"https://zoom.us/my/jane.doe", "Zoom"},
        {"https://acme.webex.com/meet/jdoe", "Webex"},
        {"https://acme.webex.com/acme/j.php?MTID=m0123456789abcdef", "Webex"},
        {"https://meet.lync.com/contoso/jdoe/AB12CD34", "Skype For Business"},
        {"https://meet.contoso.com/jdoe/AB12CD34", "Skype For Business"},
        {"https://teams.microsoft.com/l/meetup-join/19%3ameeting_abc%40thread.v2/0",
         "Microsoft Teams"},
        {"https://teams.live.com/meet/9876543210", "Microsoft Teams"},
        {"https://chime.aws/1234567890", "Amazon Chime"},
        {"https://app.chime.aws/meetings/1234567890", "Amazon Chime"},
        {"https://bluejeans.com/123456789/4321", "BlueJeans"},
        {"https://meet.google.com/abc-defg-hij", "Google Meet"},
        {"https://meet.google.com/lookup/abcdefgh", "Google Meet"},
        {"https://meetings.ringcentral.com/j/1234567890", "RingCentral"},
        {"https://global.gotomeeting.com/join/123456789", "GoToMeeting"},
        {"https://meet.goto.com/123456789", "GoToMeeting"},
        {"https://www.uberconference.com/jdoe", "UberConference"},
    };
    for (const auto& [link, service] : samples) {
        EXPECT_EQ(ServicesMatching(link), std::vector<std::string>{service}) << link;
    }
    EXPECT_TRUE(ServicesMatching("https://example.com/meeting/1").empty());
}

} // namespace
