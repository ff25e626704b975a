// The relay's responses over USB: a Kyr emulated with umockdev answers each
// OUT transfer of the real transport (and the real libusb under it) with an
// IN transfer the input gives, for up to the transport's six attempts. An
// answer is a piece of the input, empty, the rest of the input, or a piece
// padded with zeros to a size around the 1,048,588-byte limit, at it or
// just past it (which libusb reports as an overflow).
//
// The process must run under umockdev's preload library; without it the
// target starts itself again with it. The device is plugged and the
// transport connected once per process.
//
// Checked: at most one response is dispatched per command, the command
// succeeds only with one, and its payload fits in the transfer.

#include "Clients/ConferenceTransport/Src/UsbCommunication.h"
#include "Tests/Fuzz/FuzzSupport.h"
#include "Tools/Common/EmulatedUsbDevice.h"

#include <QObject>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

using namespace quorvan::velorane;
using simcommon::EmulatedUsbDevice;

namespace {

struct Kyr
{
    std::unique_ptr<EmulatedUsbDevice> device;
    std::unique_ptr<UsbCommunication> transport;
    // The answers of the input being run, one per OUT transfer; none left
    // is an empty IN transfer, a failed attempt. Taken on umockdev's thread.
    std::mutex lock;
    std::deque<std::vector<uint8_t>> answers;
};

Kyr* g_kyr = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    if (!EmulatedUsbDevice::InMockEnvironment()) {
        // libusb has to meet the emulated device from its first call on.
        const char* preload = std::getenv("LD_PRELOAD");
        std::string value = "libumockdev-preload.so.0";
        if (preload && *preload) {
            value += ":" + std::string(preload);
        }
        setenv("LD_PRELOAD", value.c_str(), 1);
        execv("/proc/self/exe", *argv);
        std::perror("fuzz_usb_response: execv");
        std::abort();
    }
    (void)argc;
    velorane::fuzz::EnsureCoreApplication();
    g_kyr = new Kyr();
    g_kyr->device = std::make_unique<EmulatedUsbDevice>();
    g_kyr->device->KeepOutTransfers(false);
    g_kyr->device->SetOutHandler([](const std::vector<uint8_t>&) {
        std::lock_guard<std::mutex> hold(g_kyr->lock);
        EmulatedUsbDevice::OutReply reply;
        reply.answers.resize(1);
        if (!g_kyr->answers.empty()) {
            reply.answers[0] = std::move(g_kyr->answers.front());
            g_kyr->answers.pop_front();
        }
        return reply;
    });
    g_kyr->device->Plug(0x7A31, 0x0301);
    g_kyr->transport = std::make_unique<UsbCommunication>();
    if (!g_kyr->transport->Initialize()) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const bool audio = input.ConsumeBool();
    std::deque<std::vector<uint8_t>> answers;
    size_t largest = 0;
    while (answers.size() < static_cast<size_t>(UsbCommunication::kAttempts) &&
           input.remaining_bytes() > 0) {
        std::vector<uint8_t> answer;
        switch (input.ConsumeIntegral<uint8_t>() % 4) {
        case 0:
            answer = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 4096));
            break;
        case 1: {
            // A frame-sized answer: the piece is its head, zeros behind.
            const int delta = input.ConsumeIntegralInRange<int>(-2, 2);
            answer = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 64));
            answer.resize(static_cast<size_t>(UsbCommunication::kResponseCapacity + delta));
            break;
        }
        case 2:
            break;
        default:
            answer = input.ConsumeRemainingBytes<uint8_t>();
            break;
        }
        largest = std::max(largest, answer.size());
        answers.push_back(std::move(answer));
    }
    {
        std::lock_guard<std::mutex> hold(g_kyr->lock);
        g_kyr->answers = std::move(answers);
    }

    int dispatched = 0;
    const QMetaObject::Connection counting = QObject::connect(
        g_kyr->transport.get(), &UsbCommunication::DataCallback,
        [&](RelayService, RelayCommand, QByteArray payload) {
            ++dispatched;
            VELORANE_FUZZ_CHECK(static_cast<size_t>(payload.size()) + 12 <= largest);
            VELORANE_FUZZ_CHECK(payload.size() + 12 <= UsbCommunication::kResponseCapacity);
        });
    const bool sent = g_kyr->transport->SendWithPayload(
        audio ? RelayCommandData(RelayServiceAudio, RelayCommandRequestAudio)
              : RelayCommandData(RelayServiceVideo, RelayCommandRequestFrame));
    QObject::disconnect(counting);
    VELORANE_FUZZ_CHECK(dispatched <= 1);
    VELORANE_FUZZ_CHECK(!sent || dispatched == 1);
    {
        std::lock_guard<std::mutex> hold(g_kyr->lock);
        g_kyr->answers.clear();
    }
    return 0;
}
