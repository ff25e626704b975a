#include "Benchmarks/RelayBenchSetup.h"

#include "Clients/ConferenceTransport/Src/RelayProtocol.h"
#include "Common/Logger/Src/FileStore.h"
#include "Common/VideoDecode/Src/VideoRenderer.h"

#include <QByteArray>
#include <QSharedPointer>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace velorane::bench {

void RegisterRelayTypes()
{
    qRegisterMetaType<RelayService>("RelayService");
    qRegisterMetaType<RelayCommand>("RelayCommand");
    qRegisterMetaType<RelayCommandData>("RelayCommandData");
    qRegisterMetaType<RelayError>("RelayError");
    qRegisterMetaType<QSharedPointer<QByteArray>>("QSharedPointer<QByteArray>");
    qRegisterMetaType<RelayCommandData>("quorvan::velorane::RelayCommandData");
}

quorvan::CRefCountPtr<quorvan::ILogStore> AddLogFileStore(const std::string& folder)
{
    std::filesystem::create_directories(folder);
    quorvan::CRefCountPtr<quorvan::ILogStore> fileStore;
    quorvan::CreateFileStore("VeloraneConference", folder, 0xa00000, &fileStore);
    quorvan::CRefCountPtr<quorvan::ILogger> logger;
    quorvan::GetLoggerInstance(&logger);
    logger->AddStore(fileStore);
    logger->SetLevel(0);
    return fileStore;
}

void FinishLogFileStore(quorvan::CRefCountPtr<quorvan::ILogStore>& store)
{
    quorvan::CRefCountPtr<quorvan::ILogger> logger;
    quorvan::GetLoggerInstance(&logger);
    logger->RemoveStore(store);
    if (auto* fileStore = dynamic_cast<quorvan::FileStore*>(store.Get())) {
        fileStore->Flush();
    }
}

size_t CountLogLines(const std::string& folder, const std::string& text)
{
    size_t count = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        std::ifstream file(entry.path());
        std::string line;
        while (std::getline(file, line)) {
            count += line.find(text) != std::string::npos;
        }
    }
    return count;
}

int StartTlsKyr(::velorane::test::TempDir& folder, ::velorane::test::ChildProcess& kyr,
                const std::string& password, const std::string& record, int timeLimitSeconds)
{
    const std::string certificate = folder.File("cert");
    const std::string makeCertificate = ::velorane::test::SourcePath("scripts/make-test-cert.sh") +
                                        " " + certificate + " >/dev/null 2>&1";
    if (std::system(makeCertificate.c_str()) != 0) {
        std::fprintf(stderr, "make-test-cert.sh failed\n");
        return -1;
    }
    const int port = ::velorane::test::FreeTcpPort();
    ::velorane::test::ChildProcess::Options options;
    options.argv = {::velorane::test::BinaryPath("kyr-sim"),
                    "--port",
                    std::to_string(port),
                    "--cert",
                    certificate + "/kyr-sim.crt",
                    "--key",
                    certificate + "/kyr-sim.key",
                    "--password",
                    password,
                    "--record",
                    record,
                    "--time-limit",
                    std::to_string(timeLimitSeconds)};
    options.outputFile = record + ".out";
    if (!kyr.Start(options) ||
        !kyr.WaitForOutput("kyr-sim: listening on", std::chrono::seconds(15))) {
        std::fprintf(stderr, "kyr-sim did not come up:\n%s\n", kyr.Output().c_str());
        return -1;
    }
    return port;
}

long StatusKb(const char* name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(name) + ":";
    while (std::getline(status, line)) {
        if (line.rfind(prefix, 0) == 0) {
            return std::atol(line.c_str() + prefix.size());
        }
    }
    return 0;
}

long ThreadId()
{
    return static_cast<long>(syscall(SYS_gettid));
}

namespace {
std::atomic<void (*)()> g_pictureHook{nullptr};
} // namespace

void SetPictureHook(void (*hook)())
{
    g_pictureHook.store(hook);
}

} // namespace velorane::bench

// RelayWindow's call of renderFrame arrives here (ld --wrap), on the decoder
// thread, goes on to the real one, and then to the benchmark's hook: the
// picture is the renderer's once the copy is done.
extern "C" void __real__ZN7quorvan13VideoRenderer11renderFrameEjjPiPhS2_S2_(
    quorvan::VideoRenderer* renderer, uint32_t width, uint32_t height, int* stride, uint8_t* yData,
    uint8_t* uData, uint8_t* vData);

extern "C" void __wrap__ZN7quorvan13VideoRenderer11renderFrameEjjPiPhS2_S2_(
    quorvan::VideoRenderer* renderer, uint32_t width, uint32_t height, int* stride, uint8_t* yData,
    uint8_t* uData, uint8_t* vData)
{
    __real__ZN7quorvan13VideoRenderer11renderFrameEjjPiPhS2_S2_(renderer, width, height, stride,
                                                                yData, uData, vData);
    if (void (*hook)() = velorane::bench::g_pictureHook.load()) {
        hook();
    }
}
