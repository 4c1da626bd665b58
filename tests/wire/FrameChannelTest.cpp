#include "KestrelvaneKit/wire/FrameChannel.h"

#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/CaughtError.h"
#include "support/Eventually.h"
#include "support/MemoryStream.h"
#include "support/ScriptedStream.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <future>

namespace kestrelvane {
namespace {

using testing::eventually;
using testing::makeMemoryStreamPair;
using testing::pattern;
using testing::ScriptedStream;
using testing::throwsClosed;

Bytes frame(std::string_view payload) {
    return FrameCodec::encode(asBytes(payload));
}

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

Bytes concat(std::initializer_list<Bytes> pieces) {
    Bytes out;
    for (const auto& each : pieces) {
        out.insert(out.end(), each.begin(), each.end());
    }
    return out;
}

// One receive brings two header frames, the whole file and the start of the
// next header: the buffered bytes serve every call before the stream is asked again.
TEST(FrameChannel, ServesBufferedBytesBeforeAskingTheStreamAndSendsFramesWhole) {
    const Bytes file = pattern(5000, 3);
    const Bytes next = frame("{\"next\":true}");
    auto stream = std::make_shared<ScriptedStream>(std::vector<Bytes>{
        concat({frame("{}"), frame(""), file, slice(next, 0, 6)}), slice(next, 6, next.size())});
    FrameChannel channel(stream);

    EXPECT_EQ(channel.receiveFrame(), toBytes("{}"));
    EXPECT_EQ(channel.receiveFrame(), Bytes{});
    EXPECT_EQ(channel.receiveRaw(1000), slice(file, 0, 1000));
    EXPECT_EQ(channel.receiveRaw(4000), slice(file, 1000, 5000));
    EXPECT_EQ(channel.receiveRaw(0), Bytes{});
    EXPECT_THROW(channel.receiveRaw(-1), std::invalid_argument);
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);
    EXPECT_EQ(channel.receiveFrame(), toBytes("{\"next\":true}"));
    EXPECT_EQ(stream->receiveMaxima, (std::vector<std::int64_t>{262144, 262144}));

    channel.sendFrame(asBytes("hello"));
    channel.sendRaw(file);
    EXPECT_EQ(stream->sent, (std::vector<Bytes>{frame("hello"), file}));
}

TEST(FrameChannel, BoundedReceiveRejectsAnOversizedPrefixBeforeBufferingItsPayload) {
    auto stream = std::make_shared<ScriptedStream>(
        std::vector<Bytes>{frame("ok"), {}, {0xFF, 0xFF, 0xFF}, {0xF0, 1, 2}});
    FrameChannel channel(stream);
    EXPECT_EQ(channel.receiveFrame(2), toBytes("ok"));
    const auto error =
        testing::errorOf<FrameChannel::FrameTooLarge>([&] { channel.receiveFrame(1024); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->announced(), 0xFFFFFFF0u);
    // An empty receive is retried; the frame is rejected as soon as the four
    // prefix bytes are in, with no receive beyond them.
    EXPECT_EQ(stream->receiveMaxima.size(), 4u);
}

// The bytes that came with the header are copied out first; the rest is read
// straight into the destination, each read asking for exactly what is missing
// and empty reads retried. A receive that ends early returns nothing, and every byte it had
// taken in, from the buffer or read directly, is there for the next receive.
TEST(FrameChannel, ReceiveRawIntoTakesTheBufferedPrefixThenReadsTheRestDirectly) {
    const Bytes file = pattern(5000, 5);
    auto stream = std::make_shared<ScriptedStream>(
        std::vector<Bytes>{concat({frame("{}"), slice(file, 0, 100)}),
                           slice(file, 100, 2100),
                           {},
                           slice(file, 2100, 5000),
                           concat({frame("next"), {0, 0, 0, 9, 1}}),
                           Bytes{2, 3},
                           Bytes{4}});
    FrameChannel channel(stream);

    EXPECT_EQ(channel.receiveFrame(), toBytes("{}"));
    Bytes piece(60);
    channel.receiveRawInto(piece);
    EXPECT_EQ(piece, slice(file, 0, 60));
    channel.receiveRawInto({}); // nothing wanted: no stream call either
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);
    Bytes rest(file.size() - 60);
    channel.receiveRawInto(rest);
    EXPECT_EQ(rest, slice(file, 60, 5000));
    EXPECT_EQ(stream->receiveMaxima, (std::vector<std::int64_t>{262144, 4900, 2900, 2900}));

    EXPECT_EQ(channel.receiveFrame(), toBytes("next"));
    Bytes tooMuch(10);
    EXPECT_TRUE(throwsClosed([&] { channel.receiveRawInto(tooMuch); }));
    EXPECT_TRUE(throwsClosed([&] { channel.receiveFrame(); }));
    EXPECT_EQ(channel.receiveRaw(8), Bytes({0, 0, 0, 9, 1, 2, 3, 4}));
}

// A thread waiting in a receive must not hold up a send on the same channel,
// and a cancel wakes it.
TEST(FrameChannel, AWaitingReceiveHoldsUpNoSendAndEndsClosedOnCancel) {
    auto [a, b] = makeMemoryStreamPair();
    FrameChannel near(a);
    FrameChannel far(b);
    auto waiting = std::async(std::launch::async, [&] { return near.receiveFrame(); });
    ASSERT_TRUE(eventually([stream = a] { return stream->receiveCount() > 0; }));
    near.sendFrame(asBytes("ping"));
    EXPECT_EQ(far.receiveFrame(), toBytes("ping"));
    far.sendFrame(asBytes("pong"));
    EXPECT_EQ(waiting.get(), toBytes("pong"));

    auto next = std::async(std::launch::async, [&] { return near.receiveFrame(); });
    ASSERT_TRUE(eventually([stream = a] { return stream->receiveCount() > 1; }));
    near.cancel();
    EXPECT_TRUE(throwsClosed([&] { next.get(); }));
    EXPECT_TRUE(throwsClosed([&] { near.sendFrame(asBytes("late")); }));
}

} // namespace
} // namespace kestrelvane
