#pragma once

// Names that the relay shares with the client application: the local
// socket's name, the keys of the client's network settings, and the
// meeting-link patterns by which the client recognises a conferencing
// service. The relay itself uses only the socket's name.

#include <map>
#include <string>
#include <vector>

namespace quorvan::velorane::relay {

// The client application listens under this name before it starts the
// relay; neither side passes it to the other.
inline constexpr char kRelayServerName[] = "VELORANE_RELAY";

inline constexpr char kPrimaryKey[] = "Primary";
inline constexpr char kWifiKey[] = "Wifi";
inline constexpr char kVlansKey[] = "Vlans";
inline constexpr char kPortKey[] = "Port";
inline constexpr char kScreenKey[] = "ScreenKey";

// Service name to its meeting-link patterns, one pattern per URL form the
// service hands out. They keep to what QRegularExpression and std::regex
// read alike, are matched against a whole link, case-sensitively, and
// expect hosts in lower case.
// "NONE" stands for no service and has no patterns.
inline const std::map<std::string, std::vector<std::string>>& MeetingLinkPatterns()
{
    static const std::map<std::string, std::vector<std::string>> patterns = {
        {"NONE", {}},
        {"Zoom",
         {
             R"re(https?://([a-z0-9-]+\.)?zoom\.us/j/[0-9]{9,11}(\?pwd=[A-Za-z0-9._-]+)?)re",
             R"re(https?://([a-z0-9-]+\.)?zoom\.us/my/[A-Za-z0-9._-]+)re",
             R"re(https?://([a-z0-9-]+\.)?zoomgov\.com/j/[0-9]{9,11}(\?pwd=[A-Za-z0-9._-]+)?)re",
         }},
        {"Webex",
         {
             R"re(https?://[a-z0-9-]+\.webex\.com/(meet|join)/[A-Za-z0-9._-]+)re",
             R"re(https?://[a-z0-9-]+\.webex\.com/[a-z0-9-]+/j\.php\?MTID=[A-Za-z0-9]+)re",
         }},
        {"Skype For Business",
         {
             R"re(https?://meet\.lync\.com/[A-Za-z0-9.-]+/[A-Za-z0-9._-]+/[A-Za-z0-9]+)re",
             // A company's own Lync host, which isn't one of the meet.* hosts
             // of the other services.
             R"re(https?://meet\.(?!google\.com/|goto\.com/|lync\.com/)[a-z0-9-]+(\.[a-z0-9-]+)+/[A-Za-z0-9._-]+/[A-Za-z0-9]+)re",
         }},
        {"Microsoft Teams",
         {
             R"re(https?://teams\.microsoft\.com/l/meetup-join/[^\s]+)re",
             R"re(https?://teams\.live\.com/meet/[0-9]+(\?p=[A-Za-z0-9]+)?)re",
         }},
        {"Amazon Chime",
         {
             R"re(https?://chime\.aws/[0-9]{10})re",
             R"re(https?://app\.chime\.aws/meetings/[0-9]{10})re",
         }},
        {"BlueJeans",
         {
             R"re(https?://bluejeans\.com/[0-9]+(/[0-9]+)?)re",
             R"re(https?://bjn\.vc/[A-Za-z0-9]+)re",
         }},
        {"Google Meet",
         {
             R"re(https?://meet\.google\.com/[a-z]{3}-[a-z]{4}-[a-z]{3})re",
             R"re(https?://meet\.google\.com/lookup/[A-Za-z0-9_-]+)re",
             R"re(https?://g\.co/meet/[A-Za-z0-9_-]+)re",
         }},
        {"RingCentral",
         {
             R"re(https?://meetings\.ringcentral\.com/j/[0-9]+)re",
             R"re(https?://v\.ringcentral\.com/join/[0-9]+)re",
         }},
        {"GoToMeeting",
         {
             R"re(https?://(global|www|app)\.gotomeeting\.com/join/[0-9]{9})re",
             R"re(https?://meet\.goto\.com/[0-9]{9})re",
             R"re(https?://gotomeet\.me/[A-Za-z0-9_-]+)re",
         }},
        {"UberConference",
         {
             R"re(https?://(www\.)?uberconference\.com/[A-Za-z0-9._-]+)re",
         }},
    };
    return patterns;
}

} // namespace quorvan::velorane::relay
