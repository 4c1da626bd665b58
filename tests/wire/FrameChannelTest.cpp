#include "KestrelvaneKit/wire/FrameChannel.h"

#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/Eventually.h"
#include "support/FailingStream.h"
#include "support/MemoryStream.h"
#include "support/ScriptedStream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>
#include <system_error>
#include <thread>

namespace kestrelvane {
namespace {

using testing::FailingStream;
using testing::makeMemoryStreamPair;
using testing::ReceiveMode;
using testing::ScriptedStream;

Bytes pattern(std::size_t size, std::uint8_t seed) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

template <class Stream> void expectStreamClosed(Stream&& operation) {
    try {
        operation();
        FAIL() << "expected StreamError::closed";
    } catch (const StreamError& error) {
        EXPECT_TRUE(error.isClosed()) << error.what();
    }
}

TEST(FrameChannel, SendsEachFrameInOneCallAndRawBytesUnframed) {
    auto stream = std::make_shared<ScriptedStream>();
    FrameChannel channel(stream);
    channel.sendFrame({});
    channel.sendFrame(asBytes("hello"));
    channel.sendRaw(pattern(10, 1));
    ASSERT_EQ(stream->sent.size(), 3u);
    EXPECT_EQ(stream->sent[0], Bytes({0, 0, 0, 0}));
    EXPECT_EQ(stream->sent[1], FrameCodec::encode(asBytes("hello")));
    EXPECT_EQ(stream->sent[2], pattern(10, 1));
}

// One receive brings a header frame, the whole file and the start of the next
// header: the buffered bytes serve every call before the stream is asked again.
TEST(FrameChannel, ConsumesBufferedBytesBeforeAskingTheStream) {
    const Bytes file = pattern(5000, 3);
    const Bytes secondHeader = FrameCodec::encode(asBytes("{\"next\":true}"));
    const Bytes chunk = concat({FrameCodec::encode(asBytes("{\"name\":\"a.jpg\"}")), file,
                                Bytes(secondHeader.begin(), secondHeader.begin() + 6)});
    auto stream = std::make_shared<ScriptedStream>(
        std::vector<Bytes>{chunk, Bytes(secondHeader.begin() + 6, secondHeader.end())});
    FrameChannel channel(stream);

    EXPECT_EQ(channel.receiveFrame(), toBytes("{\"name\":\"a.jpg\"}"));
    EXPECT_EQ(channel.receiveRaw(1000), Bytes(file.begin(), file.begin() + 1000));
    EXPECT_EQ(channel.receiveRaw(4000), Bytes(file.begin() + 1000, file.end()));
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);
    EXPECT_EQ(channel.receiveRaw(0), Bytes{});
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);
    EXPECT_EQ(channel.receiveFrame(), toBytes("{\"next\":true}"));
    EXPECT_EQ(stream->receiveMaxima, (std::vector<std::int64_t>{262144, 262144}));
}

TEST(FrameChannel, BoundedReceiveRejectsAnOversizedPrefixBeforeBufferingItsPayload) {
    auto stream = std::make_shared<ScriptedStream>(
        std::vector<Bytes>{FrameCodec::encode(asBytes("ok")), {0xFF, 0xFF, 0xFF}, {0xF0, 1, 2}});
    FrameChannel channel(stream);
    EXPECT_EQ(channel.receiveFrame(2), toBytes("ok"));
    try {
        channel.receiveFrame(1024);
        FAIL() << "expected FrameTooLarge";
    } catch (const FrameChannel::FrameTooLarge& error) {
        EXPECT_EQ(error.announced(), 0xFFFFFFF0u);
    }
    // Rejected as soon as the four prefix bytes were in: no receive beyond them.
    EXPECT_EQ(stream->receiveMaxima.size(), 3u);
}

TEST(FrameChannel, ReceiveRawOfZeroMakesNoStreamCall) {
    auto stream = std::make_shared<ScriptedStream>();
    FrameChannel channel(stream);
    EXPECT_TRUE(channel.receiveRaw(0).empty());
    EXPECT_TRUE(stream->receiveMaxima.empty());
    EXPECT_THROW(channel.receiveRaw(-1), std::invalid_argument);
}

TEST(FrameChannel, EmptyReceivesAreRetriedNotReturned) {
    const Bytes frame = FrameCodec::encode(asBytes("x"));
    auto stream = std::make_shared<ScriptedStream>(
        std::vector<Bytes>{{}, {frame[0], frame[1]}, {}, {}, {frame[2], frame[3], frame[4]}});
    FrameChannel channel(stream);
    EXPECT_EQ(channel.receiveFrame(), toBytes("x"));
    EXPECT_EQ(stream->receiveMaxima.size(), 5u);
}

TEST(FrameChannel, EndOfStreamInsideAFrameIsClosedAndKeepsThePartialBytes) {
    auto stream = std::make_shared<ScriptedStream>(std::vector<Bytes>{{0, 0, 0}});
    FrameChannel channel(stream);
    expectStreamClosed([&] { channel.receiveFrame(); });

    auto midPayload = std::make_shared<ScriptedStream>(std::vector<Bytes>{{0, 0, 0, 9, 'a', 'b'}});
    FrameChannel second(midPayload);
    expectStreamClosed([&] { second.receiveFrame(); });
    expectStreamClosed([&] { second.receiveRaw(7); });
    // Nothing was lost: the partial frame is still there to be read.
    EXPECT_EQ(second.receiveRaw(6), Bytes({0, 0, 0, 9, 'a', 'b'}));
}

TEST(FrameChannel, OneByteReceivesStillYieldFramesAndRawRuns) {
    auto [sender, receiver] =
        makeMemoryStreamPair(ReceiveMode::whatIsThere, ReceiveMode::oneByteAtATime);
    FrameChannel out(sender);
    FrameChannel in(receiver);
    const Bytes file = pattern(300, 9);
    out.sendFrame(asBytes("header"));
    out.sendRaw(file);
    out.sendFrame(asBytes("next"));
    out.cancel();

    EXPECT_EQ(in.receiveFrame(), toBytes("header"));
    EXPECT_EQ(in.receiveRaw(300), file);
    EXPECT_EQ(in.receiveFrame(), toBytes("next"));
    expectStreamClosed([&] { in.receiveFrame(); });
    EXPECT_EQ(receiver->receiveCount(), 4u + 6 + 300 + 4 + 4 + 1);
}

// Frames from several threads at once arrive whole: none is interleaved with another.
TEST(FrameChannel, ConcurrentSendFramesNeverInterleave) {
    auto [a, b] = makeMemoryStreamPair();
    FrameChannel out(a);
    FrameChannel in(b);
    constexpr int threads = 4;
    constexpr int framesEach = 200;
    {
        std::vector<std::jthread> senders;
        for (int t = 0; t < threads; ++t) {
            senders.emplace_back([&out, t] {
                for (int i = 0; i < framesEach; ++i) {
                    out.sendFrame(
                        pattern(1000 + static_cast<std::size_t>(i), static_cast<std::uint8_t>(t)));
                }
            });
        }
    }
    std::set<std::pair<std::uint8_t, std::size_t>> seen;
    for (int i = 0; i < threads * framesEach; ++i) {
        const Bytes payload = in.receiveFrame();
        ASSERT_GE(payload.size(), 1000u);
        ASSERT_EQ(payload, pattern(payload.size(), payload[0])) << "frame " << i << " is mixed";
        seen.emplace(payload[0], payload.size());
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(threads * framesEach));
}

// A thread waiting in receiveFrame must not hold up a send on the same channel.
TEST(FrameChannel, SendProceedsWhileAnotherThreadWaitsInReceive) {
    auto [a, b] = makeMemoryStreamPair();
    FrameChannel near(a);
    FrameChannel far(b);
    auto waiting = std::async(std::launch::async, [&] { return near.receiveFrame(); });
    ASSERT_TRUE(testing::eventually([stream = a] { return stream->receiveCount() > 0; }));

    near.sendFrame(asBytes("ping"));
    EXPECT_EQ(far.receiveFrame(), toBytes("ping"));
    far.sendFrame(asBytes("pong"));
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), toBytes("pong"));
}

TEST(FrameChannel, CancelWakesAWaitingReceiverWithClosed) {
    auto [a, b] = makeMemoryStreamPair();
    FrameChannel channel(a);
    auto waiting = std::async(std::launch::async, [&] { return channel.receiveFrame(); });
    ASSERT_TRUE(testing::eventually([stream = a] { return stream->receiveCount() > 0; }));
    channel.cancel();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    expectStreamClosed([&] { waiting.get(); });
    expectStreamClosed([&] { channel.sendFrame(asBytes("late")); });
}

// The bytes that came with the header are copied out first; the rest is read
// straight into the destination, each read asking for exactly what is missing.
TEST(FrameChannel, ReceiveRawIntoTakesTheBufferedPrefixThenReadsTheRestDirectly) {
    const Bytes file = pattern(5000, 5);
    const Bytes nextHeader = FrameCodec::encode(asBytes("{\"next\":true}"));
    auto stream = std::make_shared<ScriptedStream>(std::vector<Bytes>{
        concat({FrameCodec::encode(asBytes("{}")), Bytes(file.begin(), file.begin() + 100)}),
        Bytes(file.begin() + 100, file.begin() + 2100), Bytes(file.begin() + 2100, file.end()),
        nextHeader});
    FrameChannel channel(stream);

    EXPECT_EQ(channel.receiveFrame(), toBytes("{}"));
    Bytes piece(60);
    channel.receiveRawInto(piece);
    EXPECT_EQ(piece, Bytes(file.begin(), file.begin() + 60));
    channel.receiveRawInto({}); // nothing wanted: no stream call either
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);

    Bytes rest(file.size() - 60);
    channel.receiveRawInto(rest);
    EXPECT_EQ(rest, Bytes(file.begin() + 60, file.end()));
    EXPECT_EQ(stream->receiveMaxima, (std::vector<std::int64_t>{262144, 4900, 2900}));
    EXPECT_EQ(channel.receiveFrame(), toBytes("{\"next\":true}"));
}

// Frames, too, come whole through short and empty reads.
TEST(FrameChannel, ReceiveRawIntoKeepsReadingThroughShortAndEmptyReads) {
    for (const auto mode : {ReceiveMode::oneByteAtATime, ReceiveMode::emptyEveryOther}) {
        auto [sender, receiver] = makeMemoryStreamPair(ReceiveMode::whatIsThere, mode);
        FrameChannel out(sender);
        FrameChannel in(receiver);
        const Bytes file = pattern(300, 11);
        out.sendFrame(asBytes("header"));
        out.sendRaw(Bytes(file.begin(), file.begin() + 150));
        auto rest = std::async(std::launch::async, [&out, &file] {
            out.sendRaw(Bytes(file.begin() + 150, file.end()));
            out.sendFrame(asBytes("next"));
        });
        EXPECT_EQ(in.receiveFrame(), toBytes("header"));
        Bytes received(file.size());
        in.receiveRawInto(received);
        rest.get();
        EXPECT_EQ(received, file);
        EXPECT_EQ(in.receiveFrame(), toBytes("next"));
    }
}

// A receive that ends part-way returns nothing, and every byte it had taken
// in, from the buffer or read directly, is there for the next receive.
TEST(FrameChannel, ReceiveRawIntoThatFailsKeepsEveryReceivedByteBuffered) {
    auto stream = std::make_shared<ScriptedStream>(std::vector<Bytes>{
        concat({FrameCodec::encode(asBytes("h")), Bytes{1, 2, 3}}), Bytes{4, 5}, Bytes{6}});
    FrameChannel channel(stream);
    EXPECT_EQ(channel.receiveFrame(), toBytes("h"));
    Bytes tooMuch(10, 0xEE);
    expectStreamClosed([&] { channel.receiveRawInto(tooMuch); });
    const auto receivesSoFar = stream->receiveMaxima.size();
    EXPECT_EQ(channel.receiveRaw(6), Bytes({1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(stream->receiveMaxima.size(), receivesSoFar);

    // A transport's own error reaches the caller unchanged.
    auto [sender, receiver] =
        makeMemoryStreamPair(ReceiveMode::whatIsThere, ReceiveMode::oneByteAtATime);
    const Bytes frame = FrameCodec::encode(asBytes("h"));
    auto failing = std::make_shared<FailingStream>(
        receiver, FailingStream::Cut{.direction = FailingStream::Direction::receiving,
                                     .afterBytes = frame.size() + 40,
                                     .failure = FailingStream::Failure::reset});
    FrameChannel out(sender);
    FrameChannel in(failing);
    out.sendFrame(asBytes("h"));
    out.sendRaw(pattern(100, 2));
    EXPECT_EQ(in.receiveFrame(), toBytes("h"));
    Bytes whole(100);
    try {
        in.receiveRawInto(whole);
        FAIL() << "a receive across a reset connection returned";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::connection_reset);
    }
    EXPECT_EQ(in.receiveRaw(40), pattern(40, 2));
}

TEST(FrameChannel, CancelWakesAWaitingReceiveRawIntoWithClosed) {
    auto [a, b] = makeMemoryStreamPair();
    FrameChannel channel(a);
    FrameChannel peer(b);
    peer.sendRaw(pattern(10, 4));
    Bytes into(100);
    auto waiting = std::async(std::launch::async, [&] { channel.receiveRawInto(into); });
    ASSERT_TRUE(testing::eventually([stream = a] { return stream->receiveCount() > 1; }));
    channel.cancel();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    expectStreamClosed([&] { waiting.get(); });
    EXPECT_EQ(channel.receiveRaw(10), pattern(10, 4));
}

} // namespace
} // namespace kestrelvane
