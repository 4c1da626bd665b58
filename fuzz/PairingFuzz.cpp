// Plays arbitrary bytes as a peer's admission and pairing messages, to each
// part that reads them: the receiver's hello, the sender's answer, and both
// ends of a pairing. Each must end with its error or an outcome, never crash,
// hang or read past what it was given.
#include "KestrelvaneKit/session/Admission.h"
#include "KestrelvaneKit/session/Pairing.h"
#include "ReplayStream.h"

using namespace kestrelvane;

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
