// Decodes arbitrary bytes as one message type. Whatever decodes must encode,
// and decode again to an equal message.
#include "KestrelvaneKit/wire/WireMessage.h"

#include <cstdlib>

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Message = KV_FUZZ_MESSAGE;
    Message message;
    try {
        message = WireMessage::decode<Message>(ByteView(data, size));
    } catch (const WireMessage::DecodingError&) {
        return 0;
    }
    Bytes encoded;
    try {
        encoded = WireMessage::encode(message);
    } catch (const WireMessage::EncodingError&) {
        // Only a date outside four-digit years can be read but not written
        // (an offset moves 0000-01-01T00:00:00+01:00 into year -1).
        return 0;
    }
    if (!(WireMessage::decode<Message>(encoded) == message)) {
        std::abort();
    }
    return 0;
}
