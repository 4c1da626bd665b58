#include "KestrelvaneKit/session/PrivateLink.h"

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>

namespace kestrelvane {
namespace {

using Cause = ConnectError::Cause;
using Clock = std::chrono::steady_clock;

/// A TLS record begins with its content type, a handshake 0x16; a sender in
/// clear with its session header's length, which is below 1 MiB: 0x00.
constexpr std::uint8_t tlsHandshake = 0x16;
constexpr std::uint8_t clearSender = 0x00;

/// The first byte the sender sent, left in place for whoever reads on; none
/// when it sent none before `deadline` or hung up.
std::optional<std::uint8_t> firstByte(const TcpConnection& connection, Clock::time_point deadline) {
    pollfd waiting{.fd = connection.nativeSocket(), .events = POLLIN, .revents = 0};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        const int ready =
            ::poll(&waiting, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        std::uint8_t byte = 0;
        if (ready <= 0 || ::recv(waiting.fd, &byte, 1, MSG_PEEK) != 1) {
            return std::nullopt;
        }
        return byte;
    }
}

std::string quoted(const std::string& name) {
    return "\"" + UnicodeText::printable(name) + "\"";
}

std::string nowhere(const std::string& destination) {
    return "you have not paired with " + destination + ": run `kestrelvane pair " + destination +
           "`";
}

Timestamp now() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now());
}

/// The hello over a started-to-be TLS stream, and what the policy makes of it.
void admit(const std::shared_ptr<TlsStream>& stream, const PrivateLink::Policy& policy,
           PrivateLink::Admitted& admitted) {
    {
        stream->start();
        const Admission::Hello hello = Admission::readHello(*stream);
        const Fingerprint& sender = stream->peerFingerprint();
        PairedDevices paired(policy.trust.folder);
        const auto known = paired.find(sender);
        admitted.peer = quoted(known ? known->name : hello.name) + " (" + sender.shortHex() + ")";
        using Refusal = Admission::Answer::Refusal;
        if (hello.purpose == Admission::Purpose::send) {
            if (!known && !policy.acceptAnyone) {
                Admission::send(*stream, {Refusal::unknownSender, {}});
                admitted.refusal = "not paired (to pair: kestrelvane receive --allow-pairing "
                                   "here, kestrelvane pair there)";
            } else {
                Admission::send(*stream, {Refusal::none, policy.trust.name, policy.resume});
                if (policy.resume && hello.resume) {
                    admitted.resumeDevice = sender.hex();
                }
                stream->setDeadline(std::nullopt);
                admitted.stream = stream;
            }
            return;
        }
        const auto entry = policy.pairing ? policy.pairing->enter() : PairingWindow::Entry::closed;
        if (entry != PairingWindow::Entry::granted) {
            const bool busy = entry == PairingWindow::Entry::busy;
            Admission::send(*stream, {busy ? Refusal::pairingBusy : Refusal::pairingClosed, {}});
            admitted.refusal = busy ? "asked to pair while another pairing is under way"
                                    : "asked to pair; pairing is not allowed now "
                                      "(--allow-pairing)";
            return;
        }
        bool showedCode = false;
        Pairing::Outcome outcome = Pairing::Outcome::brokenAfterReveal;
        try {
            Admission::send(*stream, {Refusal::none, policy.trust.name});
            stream->setDeadline(Clock::now() + PairingWindow::openFor + PrivateLink::admissionTime);
            outcome = Pairing::asReceiver(*stream, hello.name, [&](const PairingOffer& offer) {
                showedCode = true;
                return policy.ask ? policy.ask(offer) : std::string();
            });
        } catch (...) {
            policy.pairing->leave(showedCode);
            throw;
        }
        policy.pairing->leave(showedCode);
        if (outcome == Pairing::Outcome::paired) {
            admitted.paired = PairedDevice{sender, hello.name, {}, now()};
            paired.add(*admitted.paired);
        } else {
            admitted.refusal = outcome == Pairing::Outcome::codesDiffer
                                   ? "not paired: the code typed here is not this screen's"
                               : outcome == Pairing::Outcome::peerDeclined
                                   ? "not paired: the sender's person did not confirm"
                                   : "not paired: the connection ended in the middle";
        }
    }
}

} // namespace

Trust Trust::ofThisDevice() {
    return {DeviceIdentity::defaultFolder(), hostName()};
}

PairingWindow::PairingWindow() : closes_(Clock::now() + openFor) {
}

PairingWindow::Entry PairingWindow::enter() {
    const std::lock_guard lock(mutex_);
    if (Clock::now() >= closes_ || attemptsLeft_ == 0) {
        return Entry::closed;
    }
    if (busy_) {
        return Entry::busy;
    }
    busy_ = true;
    return Entry::granted;
}

void PairingWindow::leave(bool showedCode) {
    const std::lock_guard lock(mutex_);
    busy_ = false;
    attemptsLeft_ -= showedCode ? 1 : 0;
}

PrivateLink::Opened
PrivateLink::toReceiver(const std::function<std::shared_ptr<TcpConnection>()>& connect,
                        const Trust& trust, const std::string& destination,
                        Admission::Purpose purpose, const std::stop_token& stop) {
    std::optional<Fingerprint> pin;
    if (purpose == Admission::Purpose::send) {
        const auto records = PairedDevices(trust.folder).named(destination);
        if (records.empty()) {
            throw ConnectError(Cause::notPaired, nowhere(destination));
        }
        if (records.size() > 1) {
            throw ConnectError(Cause::notPaired,
                               "several paired devices answer to " + destination +
                                   ": send to the destination one of them was paired with "
                                   "(kestrelvane pair --list)");
        }
        pin = records.front().fingerprint;
    }
    const DeviceIdentity identity = DeviceIdentity::loadOrCreate(trust.folder);
    const auto stream =
        std::make_shared<TlsStream>(connect(), TlsStream::Role::client, identity, pin);
    stream->setDeadline(Clock::now() + admissionTime);
    const std::stop_callback stopping(stop, [&] { stream->close(); });
    const std::string cannot = "cannot connect to " + destination + ": ";
    Admission::Answer answer;
    try {
        stream->start();
        Admission::send(*stream, {purpose, trust.name, purpose == Admission::Purpose::send});
        answer = Admission::readAnswer(*stream);
    } catch (const StreamError& error) {
        if (error.kind() == StreamError::Kind::refused) {
            throw ConnectError(Cause::keyChanged, "the receiver's key has changed since you "
                                                  "paired: someone may be in between");
        }
        throw ConnectError(stop.stop_requested() ? Cause::timedOut : Cause::unreachable,
                           cannot + (stop.stop_requested()
                                         ? "stopped"
                                         : "the receiver closed the connection (one that "
                                           "serves paired senders only closes it at once)"));
    } catch (const std::system_error& error) {
        throw ConnectError(
            error.code() == std::errc::timed_out ? Cause::timedOut : Cause::unreachable,
            cannot + error.what() + " (a receiver in clear? --insecure sends in clear)");
    } catch (const Admission::AdmissionError& error) {
        throw ConnectError(Cause::unreachable, cannot + "the receiver answered " + error.what());
    }
    using Refusal = Admission::Answer::Refusal;
    switch (answer.refusal) {
    case Refusal::none:
        break;
    case Refusal::unknownSender:
        throw ConnectError(Cause::unknownToReceiver,
                           "this receiver does not know you: run `kestrelvane pair " + destination +
                               "`");
    case Refusal::pairingClosed:
        throw ConnectError(Cause::pairingRefused,
                           "the receiver does not allow pairing now: run `kestrelvane receive "
                           "--allow-pairing` there");
    case Refusal::pairingBusy:
        throw ConnectError(Cause::pairingRefused,
                           "the receiver is pairing with another device; try again in a moment");
    }
    stream->setDeadline(std::nullopt);
    return {stream, answer.name, answer.resume};
}

PrivateLink::Admitted PrivateLink::fromSender(const std::shared_ptr<TcpConnection>& connection,
                                              const Policy& policy) {
    const auto deadline = Clock::now() + policy.admissionTime;
    connection->start(); // an accepted connection is ready at once
    const auto first = firstByte(*connection, deadline);
    if (first != tlsHandshake && !(first == clearSender && policy.acceptAnyone)) {
        connection->cancel(); // not to be served: hung up on at once
    }
    if (!first) {
        return {.peer = "a sender", .refusal = "sent nothing in time, or hung up"};
    }
    if (*first == clearSender) {
        if (!policy.acceptAnyone) {
            return {.peer = "a sender in clear",
                    .refusal = "this receiver serves paired senders only (--accept-anyone "
                               "serves senders in clear)"};
        }
        return {.stream = std::make_shared<BonjourStream>(connection), .peer = "a sender in clear"};
    }
    if (*first != tlsHandshake) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "0x%02x", *first);
        return {.peer = "a sender",
                .refusal = std::string("not a Kestrelvane sender (its first "
                                       "byte is ") +
                           hex + ")"};
    }
    const auto stream = std::make_shared<TlsStream>(
        connection, TlsStream::Role::server,
        policy.identity ? *policy.identity : DeviceIdentity::loadOrCreate(policy.trust.folder));
    stream->setDeadline(deadline);
    Admitted admitted{.peer = "a sender over TLS"};
    try {
        admit(stream, policy, admitted);
    } catch (const Admission::AdmissionError& error) {
        admitted.refusal = std::string("broke the rules: ") + error.what();
    } catch (const StreamError&) {
        admitted.refusal = "hung up before it was admitted";
    } catch (const std::exception& error) { // TLS, the key, the paired list
        admitted.refusal = error.what();
    }
    if (!admitted.stream) {
        stream->close();
    }
    return admitted;
}

} // namespace kestrelvane
