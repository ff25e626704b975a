// kyr-sim: stands in for a Kyr so that the relay's TCP transport can be
// driven end to end, including the ways a Kyr or a network can misbehave.

#include "Console.h"
#include "KyrCommandLine.h"
#include "KyrSession.h"
#include "LiveFaults.h"
#include "TlsServer.h"
#include "Tools/Common/ControlFifo.h"
#include "Tools/Common/H264Encoder.h"
#include "Tools/Common/Recorder.h"
#include "Tools/Common/WavWriter.h"
#include "UsbKyr.h"

#include <QCoreApplication>
#include <QFile>
#include <QHostAddress>
#include <QTimer>
#include <functional>
#include <memory>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

using namespace kyrsim;
using simcommon::Recorder;

namespace {

bool ReadPem(const QString& path, QByteArray* bytes, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("can't read %1: %2").arg(path, file.errorString());
        return false;
    }
    *bytes = file.readAll();
    return true;
}

// Loads the pair, trying the key as RSA and then as EC.
bool LoadIdentity(const KyrOptions& options, QSslCertificate* certificate, QSslKey* key,
                  QString* error)
{
    QByteArray certPem;
    QByteArray keyPem;
    if (!ReadPem(options.certFile, &certPem, error) || !ReadPem(options.keyFile, &keyPem, error)) {
        return false;
    }
    *certificate = QSslCertificate(certPem, QSsl::Pem);
    if (certificate->isNull()) {
        *error = QStringLiteral("%1 holds no PEM certificate").arg(options.certFile);
        return false;
    }
    *key = QSslKey(keyPem, QSsl::Rsa, QSsl::Pem);
    if (key->isNull()) {
        *key = QSslKey(keyPem, QSsl::Ec, QSsl::Pem);
    }
    if (key->isNull()) {
        *error = QStringLiteral("%1 holds no unencrypted PEM RSA or EC key").arg(options.keyFile);
        return false;
    }
    return true;
}

// kyr-sim --usb sends its testbed's plug and unplug events from this
// process, and umockdev does that only under its preload library: so it
// starts itself again under it, before any thread exists.
bool RunAgainUnderPreloadIfUsb(char* argv[])
{
    bool usb = false;
    for (char** argument = argv + 1; *argument; ++argument) {
        usb = usb || std::strcmp(*argument, "--usb") == 0 || std::strcmp(*argument, "-usb") == 0;
    }
    if (!usb || simcommon::EmulatedUsbDevice::InMockEnvironment()) {
        return false;
    }
    const std::string preload = simcommon::EmulatedUsbDevice::PreloadValue();
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("kyr-sim: can't start again under umockdev's preload library");
    return true;
}

// Opens the control pipe, when one was asked for, and hands its orders to
// the live faults or the USB device; record writes the record line of each.
bool OpenControl(const KyrOptions& options, simcommon::ControlFifo* control, LiveFaults* live,
                 UsbKyr* usbKyr, std::function<void(const QString&)> record, QString* error)
{
    if (options.controlFile.isEmpty()) {
        return true;
    }
    control->SetHandler([live, usbKyr, record](const QString& order) {
        const QString applied = live->Apply(order);
        if (!applied.isNull()) {
            record(applied);
        } else if (usbKyr && order == QLatin1String("unplug")) {
            record(QStringLiteral("control unplug"));
            usbKyr->Unplug();
        } else if (usbKyr && order == QLatin1String("plug")) {
            record(QStringLiteral("control plug"));
            usbKyr->Plug();
        } else {
            PrintErr(QStringLiteral("unknown order on the control pipe: %1").arg(order));
            record(QStringLiteral("control unknown %1").arg(order));
        }
    });
    return control->Open(options.controlFile, error);
}

} // namespace

int main(int argc, char* argv[])
{
    if (RunAgainUnderPreloadIfUsb(argv)) {
        return 1;
    }
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kyr-sim"));

    KyrOptions options;
    QString message;
    switch (KyrCommandLine::Parse(QCoreApplication::arguments(), &options, &message)) {
    case KyrCommandLine::Outcome::Help:
        std::fputs(message.toUtf8().constData(), stdout);
        return 0;
    case KyrCommandLine::Outcome::Error:
        PrintErr(message + QStringLiteral(" (see --help)"));
        return 2;
    case KyrCommandLine::Outcome::Run:
        break;
    }

    if (options.refuse) {
        PrintOut(QStringLiteral("refusing"));
        return 0;
    }
    // The testbed comes first: it sets this process's UMOCKDEV_DIR.
    std::unique_ptr<UsbKyr> usbKyr;
    LiveFaults live;
    simcommon::ControlFifo control;
    Recorder usbRecorder;
    simcommon::WavWriter usbWav;
    if (options.usb) {
        if (!usbRecorder.Open(options.recordFile, &message) ||
            (!options.speakerWav.isEmpty() &&
             !usbWav.Open(options.speakerWav, 2, 48000, &message))) {
            PrintErr(message);
            return 2;
        }
        usbKyr = std::make_unique<UsbKyr>(options, &usbRecorder,
                                          options.speakerWav.isEmpty() ? nullptr : &usbWav, &live);
        UsbKyr* device = usbKyr.get();
        if (!OpenControl(
                options, &control, &live, device,
                [device](const QString& line) { device->Record(line); }, &message)) {
            PrintErr(message);
            return 2;
        }
    }

    if (!options.filler && !simcommon::H264Encoder::IsAvailable(&message)) {
        PrintErr(message +
                 QStringLiteral(" (Debian's libavcodec59 has it; --filler does without)"));
        return 1;
    }
    if (usbKyr) {
        usbKyr->Start();
        PrintOut(QStringLiteral("usb testbed %1").arg(usbKyr->TestbedDirectory()));
        QTimer::singleShot(options.timeLimitSec * 1000, &app, [] {
            PrintErr(QStringLiteral("time limit reached"));
            QCoreApplication::quit();
        });
        return app.exec();
    }

    QSslCertificate certificate;
    QSslKey key;
    if (!options.noTlsReply) {
        if (!QSslSocket::supportsSsl()) {
            PrintErr(QStringLiteral("Qt has no TLS support here"));
            return 1;
        }
        if (!LoadIdentity(options, &certificate, &key, &message)) {
            PrintErr(message);
            return 2;
        }
    }

    Recorder recorder;
    if (!recorder.Open(options.recordFile, &message)) {
        PrintErr(message);
        return 2;
    }
    simcommon::WavWriter speakerWav;
    if (!options.speakerWav.isEmpty() && !speakerWav.Open(options.speakerWav, 2, 48000, &message)) {
        PrintErr(message);
        return 2;
    }

    if (!OpenControl(
            options, &control, &live, nullptr,
            [&recorder](const QString& line) { recorder.Line(line); }, &message)) {
        PrintErr(message);
        return 2;
    }
    TlsServer server(certificate, key, options.noTlsReply);
    QObject::connect(&server, &TlsServer::SignalConnection, &server, [&](QSslSocket* socket) {
        new KyrSession(socket, options, &recorder,
                       options.speakerWav.isEmpty() ? nullptr : &speakerWav, &live, &server);
    });
    if (!server.listen(QHostAddress::LocalHost, options.port)) {
        PrintErr(QStringLiteral("can't listen on 127.0.0.1:%1: %2")
                     .arg(options.port)
                     .arg(server.errorString()));
        return 1;
    }
    PrintOut(QStringLiteral("listening on 127.0.0.1:%1").arg(server.serverPort()));

    QTimer::singleShot(options.timeLimitSec * 1000, &app, [] {
        PrintErr(QStringLiteral("time limit reached"));
        QCoreApplication::quit();
    });
    return app.exec();
}
