#include "Common/VirtualMonitor/Src/MessageArguments.h"

namespace quorvan::velorane::virtualmonitor {

const MessageArgument& MessageArguments::Next()
{
    if (m_next >= m_arguments.size()) {
        throw MessageArgumentError("too few arguments");
    }
    return m_arguments[m_next++];
}

long long MessageArguments::NextNumber()
{
    const auto* number = std::get_if<long long>(&Next());
    if (!number) {
        throw MessageArgumentError("a number was expected");
    }
    return *number;
}

tVmRect MessageArguments::NextRect()
{
    const MessageArgument& argument = Next();
    const tVmRect* rect = nullptr;
    if (const auto* constRect = std::get_if<const tVmRect*>(&argument)) {
        rect = *constRect;
    } else if (const auto* mutableRect = std::get_if<tVmRect*>(&argument)) {
        rect = *mutableRect;
    } else {
        throw MessageArgumentError("a rectangle was expected");
    }
    if (!rect) {
        throw MessageArgumentError("the rectangle is null");
    }
    return *rect;
}

tVmRect& MessageArguments::NextRectToFill()
{
    const auto* rect = std::get_if<tVmRect*>(&Next());
    if (!rect || !*rect) {
        throw MessageArgumentError("a rectangle to fill was expected");
    }
    return **rect;
}

bool& MessageArguments::NextBoolToFill()
{
    const auto* flag = std::get_if<bool*>(&Next());
    if (!flag || !*flag) {
        throw MessageArgumentError("a flag to fill was expected");
    }
    return **flag;
}

} // namespace quorvan::velorane::virtualmonitor
