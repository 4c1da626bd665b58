#include "KestrelvaneKit/wire/FrameCodec.h"

#include <gtest/gtest.h>

#include <random>

namespace kestrelvane {
namespace {

Bytes hex(std::initializer_list<int> values) {
    Bytes out;
    for (const int v : values) {
        out.push_back(static_cast<std::uint8_t>(v));
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

TEST(FrameCodec, EncodesBigEndianLengthThenPayload) {
    EXPECT_EQ(FrameCodec::encode({}), hex({0, 0, 0, 0}));
    EXPECT_EQ(FrameCodec::encode(asBytes("hello")),
              hex({0x00, 0x00, 0x00, 0x05, 0x68, 0x65, 0x6C, 0x6C, 0x6F}));
    const Bytes payload(256, 0xAB);
    const Bytes frame = FrameCodec::encode(payload);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 4), hex({0, 0, 1, 0}));
    EXPECT_EQ(frame.size(), 260u);
}

TEST(FrameCodec, EmptyPayloadIsAFrameNotNothing) {
    ReceiveBuffer buffer(hex({0, 0, 0, 0}));
    const auto payload = FrameCodec::decode(buffer);
    ASSERT_TRUE(payload.has_value());
    EXPECT_TRUE(payload->empty());
    EXPECT_TRUE(buffer.empty());
    EXPECT_FALSE(FrameCodec::decode(buffer).has_value());
}

TEST(FrameCodec, IncompleteFrameLeavesBufferUntouchedUntilCompleted) {
    ReceiveBuffer prefixOnly(hex({0, 0, 0}));
    EXPECT_FALSE(FrameCodec::decode(prefixOnly));
    EXPECT_EQ(prefixOnly.size(), 3u);

    ReceiveBuffer buffer(hex({0x00, 0x00, 0x00, 0x05, 0x68, 0x65}));
    EXPECT_FALSE(FrameCodec::decode(buffer));
    EXPECT_EQ(Bytes(buffer.view().begin(), buffer.view().end()),
              hex({0x00, 0x00, 0x00, 0x05, 0x68, 0x65}));
    buffer.append(hex({0x6C, 0x6C, 0x6F}));
    EXPECT_EQ(FrameCodec::decode(buffer), toBytes("hello"));
    EXPECT_TRUE(buffer.empty());
}

TEST(FrameCodec, LengthNearTwoToThe32WaitsWithoutOverflow) {
    ReceiveBuffer buffer(hex({0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3}));
    EXPECT_FALSE(FrameCodec::decode(buffer));
    EXPECT_EQ(buffer.size(), 7u);
    // 0xFFFFFFFC + 4 wraps to 0 in 32 bits; it must still count as incomplete.
    ReceiveBuffer wrap(hex({0xFF, 0xFF, 0xFF, 0xFC}));
    EXPECT_FALSE(FrameCodec::decode(wrap));
}

TEST(FrameCodec, TakesOneFrameAndKeepsWhatFollowsInOrder) {
    ReceiveBuffer buffer(concat({FrameCodec::encode(asBytes("first")),
                                 FrameCodec::encode(asBytes("second")), toBytes("raw bytes")}));
    EXPECT_EQ(FrameCodec::decode(buffer), toBytes("first"));
    EXPECT_EQ(FrameCodec::decode(buffer), toBytes("second"));
    EXPECT_FALSE(FrameCodec::decode(buffer));
    EXPECT_EQ(asText(buffer.view()), "raw bytes");
}

// Frames fed in random slices through a buffer that compacts as it goes must
// come out whole and in order, and the bytes after the last frame intact.
TEST(FrameCodec, RandomlySlicedStreamOfFramesDecodesExactly) {
    std::mt19937 random(12345);
    std::vector<Bytes> payloads;
    Bytes wire;
    for (int i = 0; i < 300; ++i) {
        Bytes payload(random() % 3000);
        for (auto& b : payload) {
            b = static_cast<std::uint8_t>(random());
        }
        const Bytes frame = FrameCodec::encode(payload);
        wire.insert(wire.end(), frame.begin(), frame.end());
        payloads.push_back(std::move(payload));
    }
    ReceiveBuffer buffer;
    std::vector<Bytes> decoded;
    std::size_t offset = 0;
    while (offset < wire.size()) {
        const std::size_t slice = std::min<std::size_t>(1 + random() % 5000, wire.size() - offset);
        buffer.append(ByteView(wire).subspan(offset, slice));
        offset += slice;
        while (auto payload = FrameCodec::decode(buffer)) {
            decoded.push_back(std::move(*payload));
        }
    }
    EXPECT_EQ(decoded, payloads);
    EXPECT_TRUE(buffer.empty());
}

} // namespace
} // namespace kestrelvane
