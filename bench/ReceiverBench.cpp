// The receiving engine: its memory while it takes in one 2 GiB file (the file
// must pass through in bounded pieces, never be held whole; the sender's side
// is synthesised on the fly, so the only large user of memory in the measuring
// process would be the engine itself), and a whole send over a real socket
// pair, next to the single-core SHA-256 rate of the same run.
//
//   build/<dir>/bench/kv_receiver_bench
#include "BenchSupport.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "KestrelvaneKit/wire/WireMessage.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <future>
#include <sys/socket.h>
#include <sys/wait.h>

namespace kestrelvane::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t fileBytes = 2ull << 30;

/// A sender that writes a session header, one file header and `fileBytes`
/// bytes cut from a repeated 1 MiB block, and then ends.
class GeneratedSender final : public KestrelvaneStream {
public:
    GeneratedSender(const Bytes& block, const std::string& sha256) : block_(block) {
        prologue_ = FrameCodec::encode(WireMessage::encode(SessionHeader{}));
        const Bytes header =
            FrameCodec::encode(WireMessage::encode(FileHeader{.name = "big.mov",
                                                              .mediaType = MediaType::video,
                                                              .byteCount = fileBytes,
                                                              .sha256 = sha256}));
        prologue_.insert(prologue_.end(), header.begin(), header.end());
    }
    void start() override {}
    void send(ByteView) override {}
    Bytes receive(std::int64_t max) override {
        const auto limit = static_cast<std::uint64_t>(max);
        if (prologueSent_ < prologue_.size()) {
            const auto count = std::min<std::uint64_t>(limit, prologue_.size() - prologueSent_);
            const auto* begin = prologue_.data() + prologueSent_;
            prologueSent_ += count;
            return Bytes(begin, begin + count);
        }
        if (bodySent_ == fileBytes) {
            throw StreamError::closed();
        }
        const auto offset = bodySent_ % block_.size();
        const auto count = std::min({limit, block_.size() - offset, fileBytes - bodySent_});
        bodySent_ += count;
        return Bytes(block_.data() + offset, block_.data() + offset + count);
    }
    void close() noexcept override {}

private:
    const Bytes& block_;
    Bytes prologue_;
    std::uint64_t prologueSent_ = 0;
    std::uint64_t bodySent_ = 0;
};

/// "VmRSS" or "VmHWM" of this process, in bytes.
std::uint64_t statusBytes(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stoull(line.substr(field.size() + 1)) * 1024;
        }
    }
    return 0;
}

/// Peak resident memory of a fresh child process that receives the file, and
/// its resident memory before the session began.
void BM_ReceiverPeakMemory(benchmark::State& state) {
    KVLog::setSink(nullptr);
    const Bytes block = randomBytes(1 << 20, 11);
    Sha256Hasher hasher;
    for (std::uint64_t done = 0; done < fileBytes; done += block.size()) {
        hasher.update(block);
    }
    const std::string sha256 = hasher.finalizeHex();
    const fs::path temporary = scratchFolder("kv-bench-recv");

    for (auto _ : state) {
        int report[2];
        if (::pipe(report) != 0) {
            state.SkipWithError("pipe failed");
            break;
        }
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(report[0]);
            std::uint64_t figures[3] = {statusBytes("VmRSS"), 0, 0};
            auto stream = std::make_shared<GeneratedSender>(block, sha256);
            FrameChannel channel(stream);
            DiscardingSaver saver([](const fs::path&, const FileHeader&) {});
            std::uint64_t saved = 0;
            TransferServer(saver, temporary).run(channel, [&](const TransferServer::Event& event) {
                saved += event.ack.status == Ack::Status::ok ? 1 : 0;
            });
            figures[1] = statusBytes("VmHWM");
            figures[2] = saved;
            const auto written = ::write(report[1], figures, sizeof figures);
            ::_exit(written == sizeof figures ? 0 : 1);
        }
        ::close(report[1]);
        std::uint64_t figures[3] = {};
        const auto got = ::read(report[0], figures, sizeof figures);
        ::close(report[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (got != sizeof figures || figures[2] != 1) {
            state.SkipWithError("the file was not received and verified");
            break;
        }
        state.counters["baseline_MiB"] = static_cast<double>(figures[0]) / 1'048'576.0;
        state.counters["peak_MiB"] = static_cast<double>(figures[1]) / 1'048'576.0;
        state.counters["under_64MiB"] = figures[1] < (64ull << 20) ? 1 : 0;
    }
    std::error_code ignored;
    fs::remove_all(temporary, ignored);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fileBytes));
}
BENCHMARK(BM_ReceiverPeakMemory)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

/// 1 GiB in 4 files from the sending engine to the receiving engine (test
/// saver, temporary files on tmpfs) over a Unix socket pair.
void BM_SendOverSocketPair(benchmark::State& state) {
    KVLog::setSink(nullptr);
    const SourceFiles files(4, 256 << 20);
    const double shaBytesPerSecond = sha256BytesPerSecond();
    const fs::path temporary = scratchFolder("kv-bench-tmp");
    for (auto _ : state) {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            state.SkipWithError("socketpair failed");
            break;
        }
        FrameChannel receiverChannel(std::make_shared<UsbmuxdStream>(FileDescriptor(fds[1])));
        DiscardingSaver saver([](const fs::path&, const FileHeader&) {});
        auto receiver = std::async(std::launch::async, [&] {
            TransferServer(saver, temporary).run(receiverChannel, nullptr);
            receiverChannel.cancel();
        });
        FrameChannel senderChannel(std::make_shared<UsbmuxdStream>(FileDescriptor(fds[0])));
        const auto acks = TransferClient().send(files.paths(), senderChannel, SessionHeader{});
        senderChannel.cancel();
        receiver.wait();
        const bool allSaved = std::all_of(
            acks.begin(), acks.end(), [](const Ack& ack) { return ack.status == Ack::Status::ok; });
        if (acks.size() != 4 || !allSaved) {
            state.SkipWithError("not every file was saved");
        }
    }
    std::error_code ignored;
    fs::remove_all(temporary, ignored);
    reportThroughput(state, files.totalBytes(), shaBytesPerSecond);
}
BENCHMARK(BM_SendOverSocketPair)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

} // namespace
} // namespace kestrelvane::bench

BENCHMARK_MAIN();
