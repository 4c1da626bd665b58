#include "KestrelvaneKit/wire/FrameChannel.h"

#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/CaughtError.h"
#include "support/ScriptedStream.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

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

// The bytes that came with the header are copied out first; the rest is read
// straight into the destination, each read asking for exactly what is missing
// and empty reads retried. A receive that ends early returns nothing, and every byte it had
// taken in, from the buffer or read directly, is there for the next receive.
TEST(FrameChannel, ReceiveRawIntoTakesTheBufferedPrefixThenReadsTheRestDirectly) {
    const Bytes file = pattern(5000, 5);
    Bytes first = frame("{}"), next = frame("next");
    first.insert(first.end(), file.begin(), file.begin() + 100);
    next.insert(next.end(), {0, 0, 0, 9, 1});
    auto stream = std::make_shared<ScriptedStream>(std::vector<Bytes>{
        first, slice(file, 100, 2100), {}, slice(file, 2100, 5000), next, Bytes{2, 3}, Bytes{4}});
    FrameChannel channel(stream);

    EXPECT_EQ(channel.receiveFrame(FrameChannel::maxMessageBytes), toBytes("{}"));
    Bytes piece(60);
    channel.receiveRawInto(piece);
    EXPECT_EQ(piece, slice(file, 0, 60));
    channel.receiveRawInto({}); // nothing wanted: no stream call either
    EXPECT_EQ(stream->receiveMaxima.size(), 1u);
    Bytes rest(file.size() - 60);
    channel.receiveRawInto(rest);
    EXPECT_EQ(rest, slice(file, 60, 5000));
    EXPECT_EQ(stream->receiveMaxima, (std::vector<std::int64_t>{262144, 4900, 2900, 2900}));

    EXPECT_EQ(channel.receiveFrame(FrameChannel::maxMessageBytes), toBytes("next"));
    Bytes tooMuch(10);
    EXPECT_TRUE(throwsClosed([&] { channel.receiveRawInto(tooMuch); }));
    EXPECT_TRUE(throwsClosed([&] { channel.receiveFrame(FrameChannel::maxMessageBytes); }));
    Bytes left(8);
    channel.receiveRawInto(left);
    EXPECT_EQ(left, Bytes({0, 0, 0, 9, 1, 2, 3, 4}));
}

} // namespace
} // namespace kestrelvane
