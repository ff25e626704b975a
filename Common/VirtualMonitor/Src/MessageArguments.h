#pragma once

// The variable arguments of the message builders and parser, checked. The
// callers pass numbers and pointers as a C variadic list would carry them;
// each is kept with its kind, and the builder takes them out in the order
// the command needs. Taking out a missing argument, one of the wrong kind or
// a null pointer throws, which the builders catch and report as a wrong
// argument list, instead of reading past the list.

#include "Common/VirtualMonitor/Src/VmRect.h"

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <type_traits>
#include <variant>
#include <vector>

namespace quorvan::velorane::virtualmonitor {

using MessageArgument = std::variant<long long, const tVmRect*, tVmRect*, bool*>;

template <typename T> MessageArgument ToMessageArgument(T value)
{
    if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
        return static_cast<long long>(value);
    } else if constexpr (std::is_same_v<T, tVmRect*> || std::is_same_v<T, const tVmRect*> ||
                         std::is_same_v<T, bool*>) {
        return value;
    } else if constexpr (std::is_same_v<T, std::nullptr_t>) {
        return static_cast<const tVmRect*>(nullptr);
    } else {
        static_assert(std::is_integral_v<T>, "a message argument is an integer, a tVmRect "
                                             "pointer or a bool pointer");
        return 0LL;
    }
}

class MessageArgumentError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class MessageArguments
{
public:
    MessageArguments(std::initializer_list<MessageArgument> arguments) : m_arguments(arguments) {}

    int NextInt() { return static_cast<int>(NextNumber()); }
    long long NextLongLong() { return NextNumber(); }
    // A rectangle to read from; a pointer to fill is good for reading too.
    tVmRect NextRect();
    tVmRect& NextRectToFill();
    bool& NextBoolToFill();

private:
    long long NextNumber();
    const MessageArgument& Next();

    std::vector<MessageArgument> m_arguments;
    size_t m_next = 0;
};

} // namespace quorvan::velorane::virtualmonitor
