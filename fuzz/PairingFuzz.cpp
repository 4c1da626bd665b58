// Plays arbitrary bytes as a peer's admission and pairing messages, to each
// part that reads them: the receiver's hello, the sender's answer, and both
// ends of a pairing. Each must end with its error or an outcome, never crash,
// hang or read past what it was given.
#include "KestrelvaneKit/session/Admission.h"
#include "KestrelvaneKit/session/Pairing.h"

#include <algorithm>

using namespace kestrelvane;

namespace {

/// The peer's bytes, then the end of the stream; what is sent back is dropped.
class ReplayStream final : public KestrelvaneStream {
public:
    explicit ReplayStream(ByteView input) : input_(input) {}

    void start() override {}
    void send(ByteView) override {}
    Bytes receive(std::int64_t max) override {
        if (offset_ >= input_.size()) {
            throw StreamError::closed();
        }
        const std::size_t count = std::min(input_.size() - offset_, static_cast<std::size_t>(max));
        const ByteView piece = input_.subspan(offset_, count);
        offset_ += count;
        return {piece.begin(), piece.end()};
    }
    void close() noexcept override {}

private:
    ByteView input_;
    std::size_t offset_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    ReplayStream peer(ByteView(data + 1, size - 1));
    const auto typed = [](const PairingOffer& offer) { return offer.code; };
    try {
        switch (data[0] % 4) {
        case 0:
            Admission::readHello(peer);
            break;
        case 1:
            Admission::readAnswer(peer);
            break;
        case 2:
            Pairing::asSender(peer, Pairing::Binding{}, "receiver", typed);
            break;
        default:
            Pairing::asReceiver(peer, Pairing::Binding{}, "sender", typed);
            break;
        }
    } catch (const Admission::AdmissionError&) {
    } catch (const StreamError&) {
    }
    return 0;
}
