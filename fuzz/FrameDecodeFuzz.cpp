// Feeds arbitrary bytes, in arbitrary slices, through the frame decoder and
// checks that what comes out re-encodes to exactly the bytes that went in.
#include "KestrelvaneKit/wire/FrameCodec.h"

#include <cstdlib>

using namespace kestrelvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte picks the slice length, so split prefixes get exercised.
    const std::size_t slice = 1 + data[0] % 17;
    const ByteView input(data + 1, size - 1);

    ReceiveBuffer buffer;
    Bytes reencoded;
    for (std::size_t offset = 0; offset < input.size(); offset += slice) {
        buffer.append(input.subspan(offset, std::min(slice, input.size() - offset)));
        while (auto payload = FrameCodec::decode(buffer)) {
            const Bytes frame = FrameCodec::encode(*payload);
            reencoded.insert(reencoded.end(), frame.begin(), frame.end());
        }
    }
    // Decoded frames plus what is left undecoded must be the input, byte for byte.
    reencoded.insert(reencoded.end(), buffer.view().begin(), buffer.view().end());
    if (!std::equal(reencoded.begin(), reencoded.end(), input.begin(), input.end())) {
        std::abort();
    }
    return 0;
}
