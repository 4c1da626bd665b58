// Media intake: SHA-256 next to OpenSSL's own one-shot digest of the same
// buffer in the same run, and the scan and planning of a large dropped folder.
//
//   build/<dir>/bench/kv_intake_bench
#include "BenchSupport.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/intake/QueuePlanner.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <time.h>

namespace kestrelvane::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t hashedBytes = 64 << 20;

/// CPU time of the calling thread: both sides of a ratio are single-threaded
/// work, and on a shared machine wall time also counts the waits for a core.
struct ThreadClock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<ThreadClock>;
    static time_point now() {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
    }
};
using Clock = ThreadClock;

std::string openSslOneShot(const Bytes& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<const char*>(digest), length);
}

/// Times `hash` per iteration in thread CPU time, with OpenSSL's one-shot
/// digest of the same buffer run next to it (alternating which goes first),
/// so that both see the same caches and clock speed. Reports the ratio of the
/// two rates.
template <class Hash>
void compareWithOneShot(benchmark::State& state, const Bytes& data, Hash hash) {
    std::chrono::duration<double> ours{};
    std::chrono::duration<double> baseline{};
    bool oursFirst = true;
    for (auto _ : state) {
        const auto timeOurs = [&] {
            const auto start = Clock::now();
            benchmark::DoNotOptimize(hash());
            const std::chrono::duration<double> elapsed = Clock::now() - start;
            ours += elapsed;
            state.SetIterationTime(elapsed.count());
        };
        const auto timeBaseline = [&] {
            const auto start = Clock::now();
            benchmark::DoNotOptimize(openSslOneShot(data));
            baseline += Clock::now() - start;
        };
        if (oursFirst) {
            timeOurs();
            timeBaseline();
        } else {
            timeBaseline();
            timeOurs();
        }
        oursFirst = !oursFirst;
    }
    const auto total = static_cast<double>(state.iterations()) * static_cast<double>(data.size());
    state.SetBytesProcessed(static_cast<std::int64_t>(total));
    state.counters["openssl_MBps"] = total / baseline.count() / 1'048'576.0;
    state.counters["ratio_to_openssl"] = baseline.count() / ours.count();
}

void BM_Sha256Hex(benchmark::State& state) {
    const Bytes data = randomBytes(hashedBytes, 11);
    compareWithOneShot(state, data, [&] { return Checksum::sha256Hex(data); });
}
BENCHMARK(BM_Sha256Hex)->Unit(benchmark::kMillisecond)->UseManualTime();

/// The same bytes read from a file in 1 MiB pieces (from tmpfs where there is one).
void BM_Sha256HexOfFile(benchmark::State& state) {
    const Bytes data = randomBytes(hashedBytes, 11);
    const fs::path folder = scratchFolder("kv-bench-hash");
    const fs::path file = folder / "data.bin";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    compareWithOneShot(state, data, [&] { return Checksum::sha256HexOfFile(file); });
    fs::remove_all(folder);
}
BENCHMARK(BM_Sha256HexOfFile)->Unit(benchmark::kMillisecond)->UseManualTime();

/// 20,000 entries in 100 folders of 200: nine in ten media files, the rest
/// text files and hidden files; every name appears in several folders.
class DroppedTree {
public:
    static constexpr int folders = 100;
    static constexpr int perFolder = 200;

    DroppedTree() : root_(scratchFolder("kv-bench-tree")) {
        const char* extensions[] = {"jpg", "HEIC", "png", "mov", "dng",
                                    "txt", "mp4",  "JPG", "tif", "cr2"};
        for (int f = 0; f < folders; ++f) {
            const fs::path folder = root_ / ("Folder " + std::to_string(f));
            fs::create_directories(folder);
            for (int i = 0; i < perFolder; ++i) {
                const std::string prefix = i % 50 == 49 ? ".hidden_" : "IMG_";
                const std::string name =
                    prefix + std::to_string((i * 37 + f) % 1000) + "." + extensions[i % 10];
                std::ofstream(folder / name) << 'x';
            }
        }
    }
    ~DroppedTree() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    const fs::path& root() const { return root_; }

private:
    fs::path root_;
};

void BM_ScanAndPlanFolder(benchmark::State& state) {
    static const DroppedTree tree;
    std::size_t planned = 0;
    for (auto _ : state) {
        planned = QueuePlanner::plan({tree.root()}, {}).size();
        benchmark::DoNotOptimize(planned);
    }
    constexpr double entries = DroppedTree::folders * (DroppedTree::perFolder + 1);
    state.counters["entries_per_s"] = benchmark::Counter(
        entries * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["files_planned"] = static_cast<double>(planned);
}
BENCHMARK(BM_ScanAndPlanFolder)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace kestrelvane::bench

BENCHMARK_MAIN();
