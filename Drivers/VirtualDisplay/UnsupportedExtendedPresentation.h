#pragma once

// The extended presentation, which this program doesn't offer: both
// requests answer ResultNotImplemented, as a display process without it
// would.
//
// Threads: the main thread only.

#include "Common/VirtualMonitor/Src/IExtendedPresentation.h"

namespace quorvan::velorane::virtualdisplay {

class UnsupportedExtendedPresentation : public extendedpresentation::IExtendedPresentation
{
public:
    RESULT CreateExtendedPresentation() override;
    RESULT DestroyExtendedPresentation() override;
};

} // namespace quorvan::velorane::virtualdisplay
