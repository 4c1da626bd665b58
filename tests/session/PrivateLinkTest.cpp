// Who is served: a receiver's policy against senders paired, unpaired, in
// clear, hostile or silent, and a sender that pins the receiver it paired
// with; then a whole pairing through both ends, stored on the receiver's.
#include "KestrelvaneKit/session/PrivateLink.h"

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/CallOutcome.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <future>

namespace kestrelvane {
namespace {

using namespace std::chrono_literals;

/// A device of its own: a key and a paired list in a fresh folder.
struct Device {
    testing::TemporaryFolder home;
    Trust trust;
    Fingerprint fingerprint;

    explicit Device(const std::string& name)
        : trust{home.path() / "kestrelvane", name},
          fingerprint(DeviceIdentity::loadOrCreate(trust.folder).fingerprint()) {}

    void pairWith(const Device& other, const std::string& destination = {}) const {
        PairedDevices(trust.folder).add({other.fingerprint, other.trust.name, destination, {}});
    }
};

/// What a sender's connection came to at the receiver, and what the sender saw.
struct Meeting {
    PrivateLink::Admitted admitted;
    std::string sender; ///< "returned" or the sender's error
};

/// `send` runs against a receiver with `policy` on loopback.
Meeting meet(const PrivateLink::Policy& policy,
             const std::function<void(std::uint16_t port)>& send) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    auto sending = std::async(std::launch::async,
                              [&] { return testing::outcomeOf([&] { send(listener.port()); }); });
    Meeting meeting{PrivateLink::fromSender(listener.accept(), policy), {}};
    if (meeting.admitted.stream) {
        meeting.admitted.stream->close();
    }
    meeting.sender = sending.get();
    return meeting;
}

/// What makes the sender's connection to the receiver on `port`.
std::function<std::shared_ptr<TcpConnection>()> connected(std::uint16_t port) {
    return [port] {
        auto connection = std::make_shared<TcpConnection>("127.0.0.1", port);
        connection->start();
        return connection;
    };
}

/// A Kestrelvane sender of `device` connecting to "desk:PORT" to send.
std::function<void(std::uint16_t)> sender(const Device& device) {
    return [&device](std::uint16_t port) {
        PrivateLink::toReceiver(connected(port), device.trust, "desk", Admission::Purpose::send);
    };
}

/// A raw peer that writes `bytes` and waits for the receiver to hang up.
std::function<void(std::uint16_t)> raw(Bytes bytes) {
    return [bytes](std::uint16_t port) {
        BonjourStream stream(std::make_shared<TcpConnection>("127.0.0.1", port));
        stream.start();
        stream.send(bytes);
        while (true) {
            stream.receive(64);
        }
    };
}

TEST(PrivateLink, AReceiverServesWhomItsPolicySaysAndTellsTheRestWhy) {
    const Device desk("desk"), laptop("laptop"), stranger("stranger");
    desk.pairWith(laptop);
    laptop.pairWith(desk, "desk");
    stranger.pairWith(desk, "desk"); // it believes; the desk does not
    const PrivateLink::Policy strict{desk.trust, false, nullptr, {}, 1s};
    PrivateLink::Policy open = strict;
    open.acceptAnyone = true;
    const Bytes header = FrameCodec::encode(toBytes(R"({"schemaVersion":1})"));
    struct Case {
        std::string name;
        const PrivateLink::Policy& policy;
        std::function<void(std::uint16_t)> send;
        bool served;
        std::string refusal; ///< part of the receiver's line
        std::string sender;  ///< how the sender's attempt began to end
    };
    const Case cases[] = {
        {"paired", strict, sender(laptop), true, "", "returned"},
        {"unpaired", strict, sender(stranger), false, "not paired",
         "other: this receiver does not know you: run `kestrelvane pair desk`"},
        {"unpaired, anyone accepted", open, sender(stranger), true, "", "returned"},
        {"in clear", strict, raw(header), false, "serves paired senders only", "closed"},
        {"in clear, anyone accepted", open, raw(header), true, "", "closed"},
        {"neither", open, raw(toBytes("GET / HTTP/1.1\r\n")), false,
         "not a Kestrelvane sender (its first byte is 0x47)", "closed"},
        {"silent", open, raw({}), false, "sent nothing in time", "closed"},
        {"a handshake that stops", open, raw({0x16, 0x03, 0x01}), false, "deadline", "closed"},
    };
    for (const Case& c : cases) {
        const Meeting meeting = meet(c.policy, c.send);
        EXPECT_EQ(meeting.admitted.stream != nullptr, c.served) << c.name;
        EXPECT_NE(meeting.admitted.refusal.find(c.refusal), std::string::npos)
            << c.name << ": " << meeting.admitted.refusal;
        EXPECT_TRUE(meeting.sender.starts_with(c.sender)) << c.name << ": " << meeting.sender;
    }
}

TEST(PrivateLink, ASenderGoesOnlyToTheOneDeviceItsDestinationNames) {
    const Device desk("desk"), laptop("laptop"), impostor("desk");
    desk.pairWith(laptop);
    impostor.pairWith(laptop);
    laptop.pairWith(desk, "desk");
    const PrivateLink::Policy open{impostor.trust, true, nullptr, {}, 1s};
    EXPECT_EQ(meet(open, sender(laptop)).sender,
              "other: the receiver's key has changed since you paired: someone may be in between");
    const Device newcomer("newcomer");
    bool connected = false;
    EXPECT_EQ(testing::outcomeOf([&] {
                  PrivateLink::toReceiver(
                      [&] {
                          connected = true;
                          return std::shared_ptr<TcpConnection>();
                      },
                      newcomer.trust, "desk", Admission::Purpose::send);
              }),
              "other: you have not paired with desk: run `kestrelvane pair desk`");
    EXPECT_FALSE(connected) << "a receiver that would refuse was reached all the same";
}

TEST(PrivateLink, PairingIsRefusedWhenNotAllowedAndStoredOnTheReceiverWhenBothCodesMatch) {
    const Device desk("desk"), laptop("laptop");
    std::promise<std::string> deskShows, laptopShows;
    auto deskScreen = deskShows.get_future().share();
    auto laptopScreen = laptopShows.get_future().share();
    PrivateLink::Policy policy{desk.trust, false, nullptr,
                               [&](const PairingOffer& offer) {
                                   deskShows.set_value(offer.code);
                                   return laptopScreen.get();
                               },
                               1s};
    Pairing::Outcome outcome{};
    const auto pairing = [&](std::uint16_t port) {
        auto opened = PrivateLink::toReceiver(connected(port), laptop.trust, "desk",
                                              Admission::Purpose::pair);
        EXPECT_EQ(opened.peerName, "desk");
        outcome =
            Pairing::asSender(*opened.stream, opened.peerName, [&](const PairingOffer& offer) {
                laptopShows.set_value(offer.code);
                return deskScreen.get();
            });
    };
    EXPECT_EQ(meet(policy, pairing).sender,
              "other: the receiver does not allow pairing now: run `kestrelvane receive "
              "--allow-pairing` there");
    policy.pairing = std::make_shared<PairingWindow>();
    const Meeting meeting = meet(policy, pairing);
    EXPECT_EQ(meeting.sender, "returned");
    EXPECT_EQ(outcome, Pairing::Outcome::paired);
    ASSERT_TRUE(meeting.admitted.paired);
    EXPECT_EQ(meeting.admitted.paired->name, "laptop");
    EXPECT_EQ(PairedDevices(desk.trust.folder).find(laptop.fingerprint)->name, "laptop");
}

} // namespace
} // namespace kestrelvane
