// kestrelvane pair: pair with a receiver once, list and forget paired devices.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/ReceiverPairing.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "Prompt.h"

#include <cstdio>

namespace kestrelvane::cli {
namespace {

std::string describe(const PairedDevice& device) {
    return "\"" + UnicodeText::printable(device.name) + "\"  " + device.fingerprint.shortHex() +
           "  " +
           (device.destination.empty() ? "(paired with this receiver)"
                                       : UnicodeText::printable(device.destination)) +
           "  " + Rfc3339::format(device.pairedAt).substr(0, 10);
}

int list(const PairedDevices& paired) {
    const auto devices = paired.list();
    if (devices.empty()) {
        std::printf("No paired devices.\n");
    }
    for (const PairedDevice& device : devices) {
        std::printf("%s\n", describe(device).c_str());
    }
    return exitOk;
}

int forget(PairedDevices& paired, const std::string& name) {
    const auto matching = paired.forget(name);
    if (matching.size() == 1) {
        std::printf("Forgot %s\n", describe(matching.front()).c_str());
        return exitOk;
    }
    if (matching.empty()) {
        std::fprintf(stderr, "kestrelvane pair: no paired device is called '%s'\n",
                     UnicodeText::printable(name).c_str());
    } else {
        std::fprintf(stderr,
                     "kestrelvane pair: several paired devices fit '%s'; give more of the "
                     "fingerprint:\n",
                     UnicodeText::printable(name).c_str());
        for (const PairedDevice& device : matching) {
            std::fprintf(stderr, "  %s\n", describe(device).c_str());
        }
    }
    return exitFailure;
}

int pair(const std::string& text) {
    const PairedReceiver result = pairWithReceiver(
        Destination::parse(text), Trust::ofThisDevice(), [](const PairingOffer& offer) {
            return askForCode(stdout, "Pairing with", offer, "the receiver");
        });
    switch (result.outcome) {
    case Pairing::Outcome::paired:
        for (const PairedDevice& old : result.replaced) {
            std::printf("This key differs from the one paired on %s.\n",
                        Rfc3339::format(old.pairedAt).substr(0, 10).c_str());
        }
        std::printf("Paired with \"%s\". Send to it with: kestrelvane send --to %s PATH...\n",
                    UnicodeText::printable(result.receiverName).c_str(), text.c_str());
        return exitOk;
    case Pairing::Outcome::codesDiffer:
        std::fprintf(stderr, "kestrelvane pair: the codes differ: not paired. Someone may be in "
                             "between; try again on a network you trust.\n");
        return exitNotTrusted;
    case Pairing::Outcome::peerDeclined:
        std::fprintf(stderr, "kestrelvane pair: the receiver did not confirm the code: not "
                             "paired.\n");
        return exitFailure;
    case Pairing::Outcome::commitmentBroken:
        std::fprintf(stderr, "kestrelvane pair: the receiver's commitment does not match: "
                             "someone may be in between. Not paired.\n");
        return exitNotTrusted;
    case Pairing::Outcome::brokenAfterReveal:
        std::fprintf(stderr, "kestrelvane pair: the connection ended in the middle of pairing: "
                             "not paired. Someone may be in between; do not retry blindly.\n");
        return exitNotTrusted;
    }
    return exitFailure;
}

} // namespace

const Command pairCommand{
    .name = "pair",
    .about = "pair with a receiver on the network, once, so that sends to it are private",
    .operands = "[DESTINATION]",
    .summary =
        {"Pairs this device with the receiver at DESTINATION (HOST:PORT, [ADDR]:PORT or the "
         "name it announces), which must run `kestrelvane receive --allow-pairing`. Both "
         "screens show a six-digit code made from both devices' keys and fresh random bytes "
         "from each; each person types the code the other screen shows. When both match, each "
         "device keeps the other's fingerprint: sends to that receiver are then encrypted and "
         "go to it alone (TLS 1.3, both keys checked).",
         "Codes that differ mean someone may be in between: nothing is kept. See "
         "docs/security.md."},
    .options = {{"list", "", "list the paired devices"},
                {"forget", "NAME",
                 "forget the paired device called NAME, or whose fingerprint begins with NAME "
                 "(8 hex digits at least); the other device should forget this one too"}},
    .exitStatuses = {{exitOk, "paired (or listed, or forgotten)"},
                     {exitFailure, "not paired: the receiver's person did not confirm; or "
                                   "nothing (or more than one device) to forget; or the key "
                                   "cannot be read"},
                     {exitUsage, "usage error"},
                     {exitNoConnection, "no connection to the receiver, or it does not allow "
                                        "pairing now"},
                     {exitNotTrusted, "the codes differ, or pairing broke off after the codes "
                                      "were drawn: someone may be in between"}},
    .run = runPair,
};

int runPair(const std::vector<std::string>& arguments) {
    const CommandLine line(pairCommand, arguments, [](const CommandLine& parsed) {
        const int modes = (parsed.has("list") ? 1 : 0) + (parsed.has("forget") ? 1 : 0) +
                          (parsed.operands().empty() ? 0 : 1);
        if (modes != 1 || parsed.operands().size() > 1) {
            throw UsageError("give one DESTINATION, or --list, or --forget NAME");
        }
        if (!parsed.operands().empty()) {
            try {
                if (Destination::parse(parsed.operands().front()).kind == Destination::Kind::usb) {
                    throw UsageError("an iPhone on USB needs no pairing; pair with a receiver "
                                     "on the network");
                }
            } catch (const std::invalid_argument& error) {
                throw UsageError(error.what());
            }
        }
    });
    if (line.finished) {
        return *line.finished;
    }
    try {
        PairedDevices paired(DeviceIdentity::defaultFolder());
        if (line.has("list")) {
            return list(paired);
        }
        if (line.has("forget")) {
            return forget(paired, *line.value("forget"));
        }
        return pair(line.operands().front());
    } catch (const IdentityError& error) {
        std::fprintf(stderr, "kestrelvane pair: %s\n", error.what());
        return exitFailure;
    } catch (const ConnectError& error) {
        std::fprintf(stderr, "kestrelvane pair: %s\n", error.what());
        return error.cause() == ConnectError::Cause::keyChanged ? exitNotTrusted : exitNoConnection;
    }
}

} // namespace kestrelvane::cli
