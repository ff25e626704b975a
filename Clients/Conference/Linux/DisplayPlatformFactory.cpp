#include "Clients/Conference/IDisplayPlatform.h"

#include "Clients/Conference/Linux/QtScreenDisplayPlatform.h"
#include "Clients/Conference/Linux/XcbDisplayPlatform.h"
#include "Common/Logger/Src/Logger.h"

#include <QGuiApplication>
#include <QString>

#include <string>

namespace quorvan::velorane::relay {

// The window can be placed in global coordinates only when Qt draws it on
// X11 (the "xcb" platform, XWayland included); the RandR connection then
// goes to the same $DISPLAY as Qt's.
std::unique_ptr<IDisplayPlatform> CreateDisplayPlatform()
{
    const std::string qtPlatform = QGuiApplication::platformName().toStdString();
    if (qtPlatform == "xcb") {
        std::string whyNot;
        if (auto platform = XcbDisplayPlatform::Create(nullptr, &whyNot)) {
            return platform;
        }
        VLOG(EGroupValueWarning,
             "No display watch on this X display (%s): the relay window can't follow a virtual "
             "monitor on this desktop",
             whyNot.c_str());
    } else {
        VLOG(EGroupValueWarning,
             "No X11 display (Qt platform [%s]): the relay window can't follow a virtual monitor "
             "on this desktop",
             qtPlatform.c_str());
    }
    return std::make_unique<QtScreenDisplayPlatform>();
}

} // namespace quorvan::velorane::relay
