#pragma once

// The one QApplication of the relay unit tests, made lazily on first use and
// kept until the process ends, and event-pumping waits for the main thread.
// Without a display the offscreen platform is used, so the window tests run
// headless.

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"

#include "Tests/Support/QtEventPump.h"

#include <QApplication>
#include <QByteArray>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMetaType>
#include <QSharedPointer>
#include <QTimer>

#include <chrono>
#include <functional>

namespace velorane::test {

// Makes the application on the first call and registers the types that
// travel through queued connections under the names the relay uses.
inline QApplication* UnitQtApplication()
{
    // QApplication keeps a reference to argc, so both live as long as it.
    static int argc = 1;
    static char argv0[] = "relay_unit_tests";
    static char* argv[] = {argv0, nullptr};
    static QApplication* application = [] {
        if (qEnvironmentVariableIsEmpty("DISPLAY") &&
            qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        auto* app = new QApplication(argc, argv);
        qRegisterMetaType<RelayService>("RelayService");
        qRegisterMetaType<RelayCommand>("RelayCommand");
        qRegisterMetaType<RelayCommandData>("RelayCommandData");
        qRegisterMetaType<RelayError>("RelayError");
        qRegisterMetaType<QSharedPointer<QByteArray>>("QSharedPointer<QByteArray>");
        return app;
    }();
    return application;
}

} // namespace velorane::test
