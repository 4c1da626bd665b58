#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

Bytes concat(const Bytes& a, const Bytes& b) {
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

TEST(UsbmuxdProtocol, EncodesALittleEndianHeaderThenTheBody) {
    const Bytes body(10, 0x5A);
    const Bytes packet = UsbmuxdProtocol::encode(7, body);
    ASSERT_EQ(packet.size(), 26u);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 16),
              (Bytes{0x1a, 0, 0, 0, 1, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0}));
    EXPECT_EQ(Bytes(packet.begin() + 16, packet.end()), body);

    ReceiveBuffer buffer(packet);
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (UsbmuxdProtocol::Decoded{7, body}));
    EXPECT_TRUE(buffer.empty());
    // The tag's high bytes survive the trip too.
    ReceiveBuffer high(UsbmuxdProtocol::encode(0xA1B2C3D4, {}));
    EXPECT_EQ(UsbmuxdProtocol::decode(high)->tag, 0xA1B2C3D4u);
}

TEST(UsbmuxdProtocol, WaitsForAWholeHeaderAndAWholeBody) {
    const Bytes packet = UsbmuxdProtocol::encode(3, asBytes("payload"));
    ReceiveBuffer shortHeader(Bytes(packet.begin(), packet.begin() + 15));
    EXPECT_FALSE(UsbmuxdProtocol::decode(shortHeader));
    EXPECT_EQ(shortHeader.size(), 15u);

    // A header alone whose length is 16 is a whole packet with an empty body.
    ReceiveBuffer headerOnly(UsbmuxdProtocol::encode(9, {}));
    const auto empty = UsbmuxdProtocol::decode(headerOnly);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->body.empty());
    EXPECT_TRUE(headerOnly.empty());

    // One and a half packets: the first comes out, the half stays at the front
    // and yields nothing until the rest arrives.
    const Bytes second = UsbmuxdProtocol::encode(4, asBytes("second body"));
    const std::size_t half = second.size() / 2;
    ReceiveBuffer buffer(concat(packet, Bytes(second.begin(), second.begin() + half)));
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer)->body, toBytes("payload"));
    EXPECT_EQ(buffer.size(), half);
    EXPECT_FALSE(UsbmuxdProtocol::decode(buffer));
    EXPECT_EQ(buffer.size(), half);
    buffer.append(ByteView(second).subspan(half));
    const auto rest = UsbmuxdProtocol::decode(buffer);
    ASSERT_TRUE(rest);
    EXPECT_EQ(rest->tag, 4u);
    EXPECT_EQ(rest->body, toBytes("second body"));
}

TEST(UsbmuxdProtocol, ALengthBelowTheHeaderSizeIsMalformedAndConsumesNothing) {
    for (const std::uint8_t length : {0, 15}) {
        Bytes packet = UsbmuxdProtocol::encode(1, asBytes("body"));
        packet[0] = length;
        ReceiveBuffer buffer(packet);
        try {
            UsbmuxdProtocol::decode(buffer);
            FAIL() << "length " << int{length} << " decoded";
        } catch (const UsbmuxdError& error) {
            EXPECT_EQ(error, UsbmuxdError::malformed("header total length " +
                                                     std::to_string(length) + " < 16"));
            EXPECT_EQ(error.kind(), UsbmuxdError::Kind::malformed);
        }
        EXPECT_EQ(buffer.size(), packet.size());
    }
}

TEST(UsbmuxdProtocol, DecodesFromABufferWhoseFrontWasAlreadyConsumed) {
    // The buffer's live bytes start after a consumed prefix, as in a long read loop.
    ReceiveBuffer buffer(concat(Bytes(5, 0xEE), UsbmuxdProtocol::encode(2, asBytes("x"))));
    buffer.consume(5);
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (UsbmuxdProtocol::Decoded{2, toBytes("x")}));
}

} // namespace
} // namespace kestrelvane
