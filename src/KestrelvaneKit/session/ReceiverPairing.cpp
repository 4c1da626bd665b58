#include "KestrelvaneKit/session/ReceiverPairing.h"

#include <chrono>

namespace kestrelvane {

PairedReceiver pairWithReceiver(const Destination& destination, const Trust& trust,
                                const Pairing::AskPerson& ask, const std::stop_token& stop) {
    const PrivateLink::Opened opened = destination.connectToPair(trust, stop);
    PairedReceiver result{.receiverName = opened.peerName};
    {
        // A stop request ends the pairing too, wherever it waits.
        const std::stop_callback closeOnStop(stop, [&opened] { opened.stream->close(); });
        result.outcome = Pairing::asSender(*opened.stream, opened.peerName, ask);
    }
    opened.stream->close();
    if (result.outcome == Pairing::Outcome::paired) {
        result.device = {opened.stream->peerFingerprint(), opened.peerName, destination.text(),
                         std::chrono::time_point_cast<std::chrono::microseconds>(
                             std::chrono::system_clock::now())};
        for (PairedDevice& old : PairedDevices(trust.folder).add(result.device)) {
            if (old.fingerprint != result.device.fingerprint) {
                result.replaced.push_back(std::move(old));
            }
        }
    }
    return result;
}

} // namespace kestrelvane
