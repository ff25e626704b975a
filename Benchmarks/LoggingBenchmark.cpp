// The logger against spdlog's asynchronous logger, configured alike: one
// writer thread, every line flushed, the same line content.
//
//   disabled:  the caller's cost of a statement whose level is off;
//   enabled:   the caller's cost of a statement that reaches the file store,
//              in bursts that fit both queues (the writer drains between
//              bursts, outside the timing);
//   sustained: lines per second through to the file, writer-bound.
//
// After the run it prints each ratio against spdlog and checks that every
// line posted in the sustained runs is in the files.

#include "Common/Logger/Src/FileStore.h"
#include "Common/Logger/Src/Logger.h"

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/file_helper.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace {

using namespace quorvan;
namespace fs = std::filesystem;

constexpr int kBurst = 64;
// Large enough that no file is pruned during a run, so every line can be
// counted afterwards.
constexpr uint64_t kBenchmarkFileSize = 1ull << 32;

std::string g_root;
uint64_t g_linesPosted = 0;
uint64_t g_linesFound = 0;
uint64_t g_spdlogPosted = 0;
uint64_t g_spdlogFound = 0;

std::string FreshFolder(const std::string& name)
{
    static int serial = 0;
    const std::string path = g_root + "/" + name + "-" + std::to_string(serial++);
    fs::create_directories(path);
    return path;
}

uint64_t CountLines(const std::string& folder)
{
    uint64_t lines = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::ifstream in(entry.path(), std::ios::binary);
        char buffer[1 << 16];
        while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
            for (std::streamsize i = 0; i < in.gcount(); ++i) {
                lines += buffer[i] == '\n';
            }
        }
    }
    return lines;
}

// Our file store as the relay's only store for the length of one run.
class OurStore
{
public:
    explicit OurStore(const std::string& folder)
        : m_store(new FileStore("VeloraneConference", folder, kBenchmarkFileSize))
    {
        m_asStore = CRefCountPtr<ILogStore>(m_store.Get());
        m_asStore->AddRef();
        LoggerAddCustom(m_asStore);
    }
    ~OurStore() { LoggerRemoveStore(m_asStore); }
    void Drain() { m_store->Flush(); }

private:
    CRefCountPtr<FileStore> m_store;
    CRefCountPtr<ILogStore> m_asStore;
};

// spdlog's basic file sink, plus a count of what it has written, so that a
// run can wait for the writer to drain. (basic_file_sink is final.)
class CountingFileSink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    explicit CountingFileSink(const std::string& path) { m_file.open(path, false); }
    std::atomic<uint64_t> written{0};

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        spdlog::memory_buf_t formatted;
        formatter_->format(msg, formatted);
        m_file.write(formatted);
        written.fetch_add(1, std::memory_order_release);
    }
    void flush_() override { m_file.flush(); }

private:
    spdlog::details::file_helper m_file;
};

class SpdlogStore
{
public:
    explicit SpdlogStore(const std::string& folder)
    {
        m_pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        m_sink = std::make_shared<CountingFileSink>(folder + "/spdlog.log");
        m_logger = std::make_shared<spdlog::async_logger>("bench", m_sink, m_pool,
                                                          spdlog::async_overflow_policy::block);
        // The same columns as our file store writes.
        m_logger->set_pattern("%m/%d/%Y %H:%M:%S.%e\t%t\t* Information *\t%!\t%v\t%s\t%#");
        m_logger->set_level(spdlog::level::info);
        m_logger->flush_on(spdlog::level::trace);
    }
    ~SpdlogStore() { Drain(); }

    void Drain()
    {
        while (m_sink->written.load(std::memory_order_acquire) < m_posted) {
            std::this_thread::yield();
        }
    }
    spdlog::async_logger& Logger() { return *m_logger; }
    void Posted(uint64_t count) { m_posted += count; }

private:
    std::shared_ptr<spdlog::details::thread_pool> m_pool;
    std::shared_ptr<CountingFileSink> m_sink;
    std::shared_ptr<spdlog::async_logger> m_logger;
    uint64_t m_posted = 0;
};

const spdlog::source_loc kSite{"Benchmarks/LoggingBenchmark", 120, "FrameLoop"};

void BM_Velorane_Disabled(benchmark::State& state)
{
    int frame = 0;
    for (auto _ : state) {
        VLOG_LEVEL(EGroupValueSpew, 1, "frame %d from %s", ++frame, "kyr");
    }
}
BENCHMARK(BM_Velorane_Disabled);

void BM_Spdlog_Disabled(benchmark::State& state)
{
    SpdlogStore spd(FreshFolder("spdlog-disabled"));
    int frame = 0;
    for (auto _ : state) {
        spd.Logger().log(kSite, spdlog::level::debug, "frame {} from {}", ++frame, "kyr");
    }
}
BENCHMARK(BM_Spdlog_Disabled);

void BM_Velorane_Enabled(benchmark::State& state)
{
    OurStore store(FreshFolder("velorane-enabled"));
    int frame = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            VLOG_BYPASS(EGroupValueInformation, 0, "frame %d from %s", ++frame, "kyr");
        }
        state.PauseTiming();
        store.Drain();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Velorane_Enabled);

void BM_Spdlog_Enabled(benchmark::State& state)
{
    SpdlogStore spd(FreshFolder("spdlog-enabled"));
    int frame = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            spd.Logger().log(kSite, spdlog::level::info, "frame {} from {}", ++frame, "kyr");
        }
        state.PauseTiming();
        spd.Posted(kBurst);
        spd.Drain();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_Spdlog_Enabled);

void BM_Velorane_Sustained(benchmark::State& state)
{
    const std::string folder = FreshFolder("velorane-sustained");
    uint64_t posted = 0;
    {
        OurStore store(folder);
        int frame = 0;
        for (auto _ : state) {
            VLOG_BYPASS(EGroupValueInformation, 0, "frame %d from %s", ++frame, "kyr");
        }
        posted = state.iterations();
        store.Drain();
    }
    g_linesPosted += posted;
    g_linesFound += CountLines(folder);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Velorane_Sustained)->UseRealTime();

void BM_Spdlog_Sustained(benchmark::State& state)
{
    const std::string folder = FreshFolder("spdlog-sustained");
    {
        SpdlogStore spd(folder);
        int frame = 0;
        for (auto _ : state) {
            spd.Logger().log(kSite, spdlog::level::info, "frame {} from {}", ++frame, "kyr");
        }
        spd.Posted(state.iterations());
        spd.Drain();
    }
    g_spdlogPosted += state.iterations();
    g_spdlogFound += CountLines(folder);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Spdlog_Sustained)->UseRealTime();

// Keeps each benchmark's time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) {
                continue;
            }
            m_real[run.run_name.function_name] = run.GetAdjustedRealTime();
            m_cpu[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
    }
    double Real(const std::string& name) const
    {
        auto it = m_real.find(name);
        return it == m_real.end() ? 0.0 : it->second;
    }
    double Cpu(const std::string& name) const
    {
        auto it = m_cpu.find(name);
        return it == m_cpu.end() ? 0.0 : it->second;
    }

private:
    std::map<std::string, double> m_real;
    std::map<std::string, double> m_cpu;
};

} // namespace

int main(int argc, char** argv)
{
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/velorane-logbench-XXXXXX";
    std::vector<char> buffer(templ.begin(), templ.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    g_root = buffer.data();

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double disabled = reporter.Cpu("BM_Velorane_Disabled");
    const double enabled = reporter.Cpu("BM_Velorane_Enabled") / kBurst;
    const double spdEnabled = reporter.Cpu("BM_Spdlog_Enabled") / kBurst;
    const double sustained = reporter.Real("BM_Velorane_Sustained");
    const double spdSustained = reporter.Real("BM_Spdlog_Sustained");

    std::printf("\nSummary\n");
    std::printf("  disabled statement:            %.1f ns (target < 50 ns)\n", disabled);
    std::printf("  enabled statement, caller:     %.1f ns, spdlog async %.1f ns, ratio %.2f "
                "(target <= 2.00)\n",
                enabled, spdEnabled, spdEnabled > 0 ? enabled / spdEnabled : 0.0);
    std::printf("  sustained lines per second:    %.0f, spdlog async %.0f, ratio %.2f\n",
                sustained > 0 ? 1e9 / sustained : 0.0, spdSustained > 0 ? 1e9 / spdSustained : 0.0,
                sustained > 0 && spdSustained > 0 ? spdSustained / sustained : 0.0);
    std::printf("  lines posted/found (ours):     %llu/%llu%s\n",
                static_cast<unsigned long long>(g_linesPosted),
                static_cast<unsigned long long>(g_linesFound),
                g_linesPosted == g_linesFound ? " no message lost" : " MESSAGES LOST");
    std::printf("  lines posted/found (spdlog):   %llu/%llu\n",
                static_cast<unsigned long long>(g_spdlogPosted),
                static_cast<unsigned long long>(g_spdlogFound));

    std::error_code ignored;
    fs::remove_all(g_root, ignored);
    return g_linesPosted == g_linesFound ? 0 : 1;
}
