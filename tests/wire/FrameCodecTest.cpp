#include "KestrelvaneKit/wire/FrameCodec.h"

#include <gtest/gtest.h>

#include <random>

namespace kestrelvane {
namespace {

TEST(FrameCodec, AnIncompleteFrameIsLeftInTheBufferUntouched) {
    for (const Bytes& partial :
         {Bytes{0, 0, 0}, Bytes{0, 0, 0, 5, 'h', 'e'}, Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3},
          Bytes{0xFF, 0xFF, 0xFF, 0xFC} /* + 4 wraps to 0 in 32 bits */}) {
        ReceiveBuffer buffer{Bytes(partial)};
        EXPECT_FALSE(FrameCodec::decode(buffer));
        EXPECT_EQ(Bytes(buffer.view().begin(), buffer.view().end()), partial);
    }
}

// Frames fed in random slices through a buffer that compacts as it goes come
// out whole and in order, each as soon as its last byte is in.
TEST(FrameCodec, RandomlySlicedStreamOfFramesDecodesExactly) {
    std::mt19937 random(12345);
    std::vector<Bytes> payloads{{}};
    Bytes wire = FrameCodec::encode({});
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
    for (std::size_t offset = 0, slice = 0; offset < wire.size(); offset += slice) {
        slice = std::min<std::size_t>(1 + random() % 5000, wire.size() - offset);
        buffer.append(ByteView(wire).subspan(offset, slice));
        while (auto payload = FrameCodec::decode(buffer)) {
            decoded.push_back(std::move(*payload));
        }
    }
    EXPECT_EQ(decoded, payloads);
    EXPECT_TRUE(buffer.empty());
}

} // namespace
} // namespace kestrelvane
