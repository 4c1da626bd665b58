// Admission and pairing between two devices: the messages that open a TLS
// connection, hostile ones among them, and the code both people compare — the
// same on two honest ends, different on the two ends of a relay.
#include "KestrelvaneKit/session/Pairing.h"

#include "KestrelvaneKit/session/Admission.h"
#include "KestrelvaneKit/wire/FrameCodec.h"
#include "support/CallOutcome.h"
#include "support/MemoryStream.h"
#include "support/TestIdentities.h"

#include <gtest/gtest.h>

#include <future>

namespace kestrelvane {
namespace {

using Outcome = Pairing::Outcome;
using testing::outcomeOf;

TEST(Admission, HelloAndAnswerGoAcrossAndEverythingElseIsRefused) {
    auto [near, far] = testing::makeMemoryStreamPair();
    Admission::send(*near, {Admission::Purpose::pair, "Desk Ümlaut"});
    const Admission::Hello hello = Admission::readHello(*far);
    EXPECT_EQ(hello.purpose, Admission::Purpose::pair);
    EXPECT_EQ(hello.name, "Desk Ümlaut");
    using Refusal = Admission::Answer::Refusal;
    for (const Refusal refusal :
         {Refusal::none, Refusal::unknownSender, Refusal::pairingClosed, Refusal::pairingBusy}) {
        Admission::send(*far, {refusal, refusal == Refusal::none ? "Laptop" : ""});
        const Admission::Answer answer = Admission::readAnswer(*near);
        EXPECT_EQ(answer.refusal, refusal);
        EXPECT_EQ(answer.name, refusal == Refusal::none ? "Laptop" : "");
    }

    const std::string tooLong(Admission::maxMessageBytes + 1, ' ');
    const std::pair<std::string, std::string> hostile[] = {
        {R"({"hello":1,"purpose":"send","name":"Bob\u001b[8m"})", "control characters"},
        {R"({"hello":1,"purpose":"send","name":"Bob\u202e"})", "control characters"},
        {R"({"hello":1,"purpose":"send","name":")" + std::string(65, 'x') + R"("})",
         "longer than 64"},
        {R"({"hello":1,"purpose":"send","name":""})", "empty"},
        {R"({"hello":1,"purpose":"steal","name":"x"})", "a hello for \"steal\""},
        {R"({"hello":2,"purpose":"send","name":"x"})", "another version"},
        {R"({"hello":1,"purpose":7,"name":"x"})", "wrong type"},
        {R"({"hello":1,"name":"x"})", "lacks \"purpose\""},
        {R"(["hello"])", "not a JSON object"},
        {R"({"hello":)", "not JSON"},
        {tooLong, "above 4096"},
    };
    for (const auto& [message, says] : hostile) {
        const auto ends = testing::makeMemoryStreamPair();
        const auto receiver = ends.second;
        Admission::sendMessage(*ends.first, message);
        const std::string outcome = outcomeOf([&] { Admission::readHello(*receiver); });
        EXPECT_NE(outcome.find(says), std::string::npos) << message << " → " << outcome;
        if (message != tooLong) {
            EXPECT_EQ(receiver->pendingBytes(), 0u) << "read past the message";
        }
    }
}

/// One person at each end: each types what the other end's screen shows.
struct People {
    std::promise<std::string> senderShows, receiverShows;
    std::shared_future<std::string> senderScreen = senderShows.get_future().share();
    std::shared_future<std::string> receiverScreen = receiverShows.get_future().share();
    std::string typo; // when set, the sender's person types this instead

    Pairing::AskPerson atSender() {
        return [this](const PairingOffer& offer) {
            senderShows.set_value(offer.code);
            return typo.empty() ? receiverScreen.get() : typo;
        };
    }
    Pairing::AskPerson atReceiver() {
        return [this](const PairingOffer& offer) {
            receiverShows.set_value(offer.code);
            return senderScreen.get();
        };
    }
};

TEST(Pairing, HonestEndsShowOneCodeAndAMistypedCodePairsNeither) {
    for (const std::string typo : {"", "000 000"}) {
        const testing::TlsPair tls = testing::connectedOverTls("alice", "bob");
        People people;
        people.typo = typo;
        auto receiving = std::async(std::launch::async, [&] {
            return Pairing::asReceiver(*tls.server, "alice", people.atReceiver());
        });
        const Outcome sending = Pairing::asSender(*tls.client, "bob", people.atSender());
        EXPECT_EQ(people.senderScreen.get(), people.receiverScreen.get());
        EXPECT_EQ(sending, typo.empty() ? Outcome::paired : Outcome::codesDiffer);
        EXPECT_EQ(receiving.get(), typo.empty() ? Outcome::paired : Outcome::peerDeclined);
    }
}

TEST(Pairing, ARelayWithItsOwnKeyMakesTheTwoEndsShowDifferentCodes) {
    // Mallory sits between: the receiver to Alice, the sender to Bob, each
    // run honestly with her own key. Whatever she does, the codes differ.
    const testing::TlsPair toAlice = testing::connectedOverTls("alice", "mallory");
    const testing::TlsPair toBob = testing::connectedOverTls("mallory", "bob");
    std::promise<std::string> aliceShows, bobShows;
    auto aliceScreen = aliceShows.get_future().share();
    auto bobScreen = bobShows.get_future().share();
    const auto relayTypes = [](std::shared_future<std::string> screen) {
        return [screen](const PairingOffer&) { return screen.get(); };
    };
    auto relayToAlice = std::async(std::launch::async, [&] {
        return Pairing::asReceiver(*toAlice.server, "bob", relayTypes(aliceScreen));
    });
    auto relayToBob = std::async(std::launch::async, [&] {
        return Pairing::asSender(*toBob.client, "bob", relayTypes(bobScreen));
    });
    auto bob = std::async(std::launch::async, [&] {
        return Pairing::asReceiver(*toBob.server, "alice", [&](const PairingOffer& offer) {
            bobShows.set_value(offer.code);
            return aliceScreen.get(); // Bob types what Alice's screen shows
        });
    });
    const Outcome alice = Pairing::asSender(*toAlice.client, "bob", [&](const PairingOffer& offer) {
        EXPECT_EQ(offer.peer, testing::testIdentity("mallory").fingerprint());
        aliceShows.set_value(offer.code);
        return bobScreen.get();
    });
    EXPECT_NE(aliceScreen.get(), bobScreen.get()) << "one chance in a million";
    EXPECT_EQ(alice, Outcome::codesDiffer);
    EXPECT_EQ(bob.get(), Outcome::codesDiffer);
    relayToAlice.get();
    relayToBob.get();
}

TEST(Pairing, AReceiverThatBreaksItsCommitmentOrHangsUpAfterTheRevealIsCalledOut) {
    for (const bool hangUp : {false, true}) {
        const testing::TlsPair tls = testing::connectedOverTls("alice", "mallory");
        auto hostile = std::async(std::launch::async, [&] {
            Admission::sendMessage(*tls.server, R"({"commit":")" + std::string(64, 'a') + "\"}");
            Admission::readMessage(*tls.server); // the sender's nonce
            if (hangUp) {
                tls.server->close();
            } else {
                Admission::sendMessage(*tls.server, R"({"nonce":")" + std::string(64, 'b') + "\"}");
            }
        });
        bool asked = false;
        const Outcome outcome = Pairing::asSender(*tls.client, "bob", [&](const PairingOffer&) {
            asked = true;
            return std::string();
        });
        hostile.get();
        EXPECT_EQ(outcome, hangUp ? Outcome::brokenAfterReveal : Outcome::commitmentBroken);
        EXPECT_FALSE(asked) << "a code was shown for a pairing that cannot be trusted";
    }
}

} // namespace
} // namespace kestrelvane
