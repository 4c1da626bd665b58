// Feeds arbitrary bytes, in arbitrary slices, through the usbmuxd packet
// decoder and reads each body as the client reads a reply: property list,
// dictionary check, device list. Each decoded packet must be the input's bytes
// at its place (the version and type fields are not read, so not compared).
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <cstdlib>

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t slice = 1 + data[0] % 23;
    const ByteView input(data + 1, size - 1);

    ReceiveBuffer buffer;
    std::size_t consumed = 0;
    try {
        for (std::size_t offset = 0; offset < input.size(); offset += slice) {
            buffer.append(input.subspan(offset, std::min(slice, input.size() - offset)));
            while (auto packet = UsbmuxdProtocol::decode(buffer)) {
                const Bytes again = UsbmuxdProtocol::encode(packet->tag, packet->body);
                const ByteView original = input.subspan(consumed, again.size());
                if (!std::equal(again.begin(), again.begin() + 4, original.begin()) ||
                    !std::equal(again.begin() + 12, again.end(), original.begin() + 12)) {
                    std::abort();
                }
                consumed += again.size();
                try {
                    const PropertyList reply = PropertyList::parse(packet->body);
                    if (reply.isDictionary()) {
                        for (const auto& device : UsbmuxdClient::parseDevices(reply.get())) {
                            (void)device;
                        }
                        (void)PropertyList::integerAt(reply.get(), "Number");
                        (void)PropertyList::stringAt(reply.get(), "String");
                    }
                } catch (const PropertyList::ParseError&) {
                }
            }
        }
    } catch (const UsbmuxdError& error) {
        if (error.kind() != UsbmuxdError::Kind::malformed) {
            std::abort();
        }
        return 0; // a header below 16 bytes: nothing after it is read
    }
    if (consumed + buffer.size() != input.size()) {
        std::abort();
    }
    return 0;
}
