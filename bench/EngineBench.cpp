// Throughput of the engines, each figure next to the single-core SHA-256 rate
// measured in the same run: every byte is hashed once on each side, so that
// rate is the ceiling a send over a fast link approaches.
//
//   build/<dir>/bench/kv_engine_bench
#include "BenchSupport.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/TestIdentities.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <future>

namespace kestrelvane::bench {
namespace {

namespace fs = std::filesystem;

/// A receiver that only verifies and acknowledges: hashes each file as it
/// arrives and answers, never touching a disk.
void hashAndAcknowledge(FrameChannel& channel) {
    Bytes buffer(1 << 20); // one piece buffer for the session, as the real receiver keeps
    try {
        (void)WireMessage::decode<SessionHeader>(
            channel.receiveFrame(FrameChannel::maxMessageBytes));
        while (true) {
            const auto header = WireMessage::decode<FileHeader>(
                channel.receiveFrame(FrameChannel::maxMessageBytes));
            Sha256Hasher hasher;
            for (std::uint64_t left = header.byteCount; left > 0;) {
                const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(left, 1 << 20));
                channel.receiveRawInto(MutableByteView(buffer.data(), piece));
                hasher.update(ByteView(buffer.data(), piece));
                left -= piece;
            }
            const bool ok = hasher.finalizeHex() == header.sha256;
            channel.sendFrame(WireMessage::encode(
                Ack{.name = header.name, .status = ok ? Ack::Status::ok : Ack::Status::error}));
        }
    } catch (const StreamError&) {
    }
}

/// Sends `files` from `near` to a hashing receiver at `far`; whether every
/// file was acknowledged as verified.
bool sendVerified(const SourceFiles& files, const std::shared_ptr<KestrelvaneStream>& near,
                  const std::shared_ptr<KestrelvaneStream>& far) {
    FrameChannel receiverChannel(far);
    auto receiver = std::async(std::launch::async, [&] { hashAndAcknowledge(receiverChannel); });
    FrameChannel senderChannel(near);
    const auto acks = TransferClient().send(files.paths(), senderChannel, SessionHeader{});
    senderChannel.cancel();
    receiver.wait();
    return acks.size() == files.paths().size() &&
           std::all_of(acks.begin(), acks.end(),
                       [](const Ack& ack) { return ack.status == Ack::Status::ok; });
}

void BM_Sha256SingleCore(benchmark::State& state) {
    const Bytes data = randomBytes(64 << 20, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Checksum::sha256Hex(data));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_Sha256SingleCore)->Unit(benchmark::kMillisecond)->UseRealTime();

/// 256 MiB in 4 files over the in-memory stream pair to a hashing receiver.
void BM_SendInMemory(benchmark::State& state) {
    const SourceFiles files(4, 64 << 20);
    const double shaBytesPerSecond = sha256BytesPerSecond();
    for (auto _ : state) {
        const auto [near, far] = memoryStreamPair();
        if (!sendVerified(files, near, far)) {
            state.SkipWithError("not every file was acknowledged as verified");
        }
    }
    reportThroughput(state, files.totalBytes(), shaBytesPerSecond);
}
BENCHMARK(BM_SendInMemory)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

/// 256 MiB in 4 files to a hashing receiver over loopback TCP, in clear
/// (range 0) or over TLS with both device certificates (range 1): what
/// privacy costs, each run against the other in the same process.
void BM_SendOverLoopback(benchmark::State& state) {
    const bool overTls = state.range(0) == 1;
    const SourceFiles files(4, 64 << 20);
    const double shaBytesPerSecond = sha256BytesPerSecond();
    for (auto _ : state) {
        std::shared_ptr<KestrelvaneStream> near, far;
        std::shared_ptr<TcpListener> listener;
        if (overTls) {
            const auto tls = testing::connectedOverTls("alice", "bob");
            near = tls.client;
            far = tls.server;
            listener = tls.listener;
        } else {
            listener = std::make_shared<TcpListener>(0, TcpListener::Scope::loopback);
            auto client = std::make_shared<BonjourStream>(
                std::make_shared<TcpConnection>("127.0.0.1", listener->port()));
            client->start();
            near = client;
            far = std::make_shared<BonjourStream>(listener->accept());
            far->start();
        }
        if (!sendVerified(files, near, far)) {
            state.SkipWithError("not every file was acknowledged as verified");
        }
    }
    reportThroughput(state, files.totalBytes(), shaBytesPerSecond);
}
BENCHMARK(BM_SendOverLoopback)
    ->ArgName("tls")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

} // namespace
} // namespace kestrelvane::bench

BENCHMARK_MAIN();
