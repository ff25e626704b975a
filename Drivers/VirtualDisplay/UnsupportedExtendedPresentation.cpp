#include "Drivers/VirtualDisplay/UnsupportedExtendedPresentation.h"

#include "Common/Logger/Src/Logger.h"

namespace quorvan::velorane::virtualdisplay {

RESULT UnsupportedExtendedPresentation::CreateExtendedPresentation()
{
    VLOG(EGroupValueInformation, "CreateExtendedPresentation isn't supported by this program");
    return ResultNotImplemented;
}

RESULT UnsupportedExtendedPresentation::DestroyExtendedPresentation()
{
    VLOG(EGroupValueInformation, "DestroyExtendedPresentation isn't supported by this program");
    return ResultNotImplemented;
}

} // namespace quorvan::velorane::virtualdisplay
