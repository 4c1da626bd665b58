#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <gtest/gtest.h>

namespace kestrelvane {
namespace {

using Decoded = UsbmuxdProtocol::Decoded;

TEST(UsbmuxdProtocol, EncodesALittleEndianHeaderThenTheBodyAndDecodesItBack) {
    const Bytes body(10, 0x5A);
    Bytes packet = UsbmuxdProtocol::encode(0xA1B2C3D4, body);
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 16),
              (Bytes{26, 0, 0, 0, 1, 0, 0, 0, 8, 0, 0, 0, 0xD4, 0xC3, 0xB2, 0xA1}));
    EXPECT_EQ(Bytes(packet.begin() + 16, packet.end()), body);
    // Behind bytes already consumed, as in a long read loop.
    packet.insert(packet.begin(), 5, 0xEE);
    ReceiveBuffer buffer(packet);
    buffer.consume(5);
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (Decoded{0xA1B2C3D4, body}));
    EXPECT_TRUE(buffer.empty());
}

TEST(UsbmuxdProtocol, WaitsForAWholeHeaderAndAWholeBody) {
    // A header and a half, then a packet that is only a header: nothing until
    // the rest comes, and the half stays at the front meanwhile.
    const Bytes first = UsbmuxdProtocol::encode(3, asBytes("payload"));
    ReceiveBuffer buffer(Bytes(first.begin(), first.begin() + 15));
    EXPECT_FALSE(UsbmuxdProtocol::decode(buffer));
    buffer.append(ByteView(first).subspan(15, 5));
    EXPECT_FALSE(UsbmuxdProtocol::decode(buffer));
    EXPECT_EQ(buffer.size(), 20u);
    buffer.append(ByteView(first).subspan(20));
    buffer.append(UsbmuxdProtocol::encode(9, {}));
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (Decoded{3, toBytes("payload")}));
    EXPECT_EQ(UsbmuxdProtocol::decode(buffer), (Decoded{9, {}}));
    EXPECT_TRUE(buffer.empty());
}

} // namespace
} // namespace kestrelvane
