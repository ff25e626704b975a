#pragma once

// The one exception of the UDP classes: a socket that can't be made, named
// or bound. After construction nothing throws.

#include <stdexcept>
#include <string>

namespace quorvan {

class UdpUtilRuntimeError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

} // namespace quorvan
