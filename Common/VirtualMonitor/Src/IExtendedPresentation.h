#pragma once

// The extended presentation of the virtual display process, reached through
// the same server as the virtual monitor.

#include "Common/Platform/Src/Result.h"

namespace quorvan::velorane::extendedpresentation {

class IExtendedPresentation
{
public:
    virtual ~IExtendedPresentation() = default;

    virtual RESULT CreateExtendedPresentation() = 0;
    virtual RESULT DestroyExtendedPresentation() = 0;
};

} // namespace quorvan::velorane::extendedpresentation
