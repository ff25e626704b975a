#include "Common/Logger/Src/Logger.h"

namespace quorvan {

// Each printed name is exactly 15 characters wide, so the group column of a
// log file lines up.
const std::string EGroupConfig = "* Config      *";
const std::string EGroupInformation = "* Information *";
const std::string EGroupWarning = "* Warning     *";
const std::string EGroupSevere = "* Severe      *";
const std::string EGroupSpew = "* Spew        *";
const std::string EGroupAll = "* All         *";

const std::string& LogGroupName(ELogGroups group)
{
    static const std::string empty;
    switch (static_cast<int32_t>(group)) {
    case EGroupValueConfig:
        return EGroupConfig;
    case EGroupValueInformation:
        return EGroupInformation;
    case EGroupValueWarning:
        return EGroupWarning;
    case EGroupValueSevere:
        return EGroupSevere;
    case EGroupValueSpew:
        return EGroupSpew;
    case EGroupValueAll:
        return EGroupAll;
    default:
        return empty;
    }
}

} // namespace quorvan
