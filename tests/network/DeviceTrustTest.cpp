// Who a device is and whom it trusts: its key, kept private; the list of
// paired devices; and TLS connections that stop at a key not pinned.
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/network/TlsStream.h"
#include "support/CallOutcome.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/TestIdentities.h"

#include <gtest/gtest.h>

#include <future>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::outcomeOf;
using testing::startsWith;

mode_t modeOf(const fs::path& path) {
    struct stat status {};
    ::lstat(path.c_str(), &status);
    return status.st_mode & 07777;
}

TEST(DeviceIdentity, IsMadeOnceKeptPrivateAndTheSameForProcessesThatStartAtOnce) {
    const testing::TemporaryFolder home;
    const fs::path folder = home.path() / "share/kestrelvane";
    std::vector<std::future<Fingerprint>> starting;
    for (int i = 0; i < 4; ++i) {
        starting.push_back(std::async(std::launch::async, [&] {
            return DeviceIdentity::loadOrCreate(folder).fingerprint();
        }));
    }
    const Fingerprint first = starting[0].get();
    for (std::size_t i = 1; i < starting.size(); ++i) {
        EXPECT_EQ(starting[i].get(), first);
    }
    EXPECT_EQ(modeOf(folder), 0700u);
    EXPECT_EQ(modeOf(folder / "identity.pem"), 0600u);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1)
        << "a temporary file was left beside the key";
    EXPECT_EQ(DeviceIdentity::loadOrCreate(folder).fingerprint(), first);
    const Fingerprint renewed = DeviceIdentity::createNew(folder).fingerprint();
    EXPECT_NE(renewed, first);
    EXPECT_EQ(DeviceIdentity::loadOrCreate(folder).fingerprint(), renewed);
    EXPECT_EQ(Fingerprint::fromHex(first.hex()), first);
    EXPECT_EQ(first.grouped().size(), 64u + 15u);
}

TEST(DeviceIdentity, RefusesWhatOthersCouldReadOrChangeAndNeverReplacesIt) {
    struct Case {
        std::string name;
        std::function<void(const fs::path& folder)> spoil;
        std::string says;
    };
    const std::vector<Case> cases = {
        {"folder others may write", [](const fs::path& f) { fs::permissions(f, fs::perms::all); },
         "others may change it; run chmod 700"},
        {"key others may read",
         [](const fs::path& f) { ::chmod((f / "identity.pem").c_str(), 0644); },
         "others may read or change it; run chmod 600"},
        {"key a link",
         [](const fs::path& f) {
             fs::rename(f / "identity.pem", f / "elsewhere.pem");
             fs::create_symlink(f / "elsewhere.pem", f / "identity.pem");
         },
         "not a regular file"},
        {"folder a link",
         [](const fs::path& f) {
             fs::rename(f, f.string() + ".real");
             fs::create_symlink(f.string() + ".real", f);
         },
         "not a folder"},
        {"key not a key",
         [](const fs::path& f) {
             testing::writeFile(f / "identity.pem", "nonsense");
             ::chmod((f / "identity.pem").c_str(), 0600);
         },
         "not a key and its certificate"},
    };
    for (const Case& spoilt : cases) {
        const testing::TemporaryFolder home;
        const fs::path folder = home.path() / "kestrelvane";
        DeviceIdentity::loadOrCreate(folder);
        spoilt.spoil(folder);
        const std::string kept = testing::readText(folder / "identity.pem");
        EXPECT_PRED2(startsWith, outcomeOf([&] { DeviceIdentity::loadOrCreate(folder); }),
                     "other: " + folder.string())
            << spoilt.name;
        EXPECT_NE(outcomeOf([&] { DeviceIdentity::loadOrCreate(folder); }).find(spoilt.says),
                  std::string::npos)
            << spoilt.name;
        EXPECT_EQ(testing::readText(folder / "identity.pem"), kept) << spoilt.name;
    }
}

TEST(PairedDevices, NamesOneRecordPerDeviceAndForgetsOnlyWhatIsUnambiguous) {
    const testing::TemporaryFolder home;
    PairedDevices paired(home.path() / "kestrelvane");
    const auto device = [](const std::string& who, const std::string& name,
                           const std::string& destination) {
        return PairedDevice{testing::testIdentity(who).fingerprint(), name, destination,
                            Timestamp(std::chrono::seconds(1700000000))};
    };
    EXPECT_TRUE(paired.list().empty());
    EXPECT_TRUE(paired.add(device("alice", "Alice's desk", "10.0.0.5:9876")).empty());
    EXPECT_TRUE(paired.add(device("bob", "Bob's laptop", "")).empty());
    EXPECT_EQ(paired.named("10.0.0.5:9876"),
              std::vector{device("alice", "Alice's desk", "10.0.0.5:9876")});
    EXPECT_EQ(paired.named("Bob's laptop").size(), 1u);
    EXPECT_TRUE(paired.named("10.0.0.5").empty());
    // Pairing again through the same destination, with another key, replaces the record.
    EXPECT_EQ(paired.add(device("mallory", "Alice's new desk", "10.0.0.5:9876")),
              std::vector{device("alice", "Alice's desk", "10.0.0.5:9876")});
    EXPECT_FALSE(paired.find(testing::testIdentity("alice").fingerprint()));
    EXPECT_EQ(paired.find(testing::testIdentity("mallory").fingerprint())->name,
              "Alice's new desk");
    EXPECT_EQ(modeOf(home.path() / "kestrelvane/peers.json"), 0600u);

    EXPECT_EQ(paired.forget(testing::testIdentity("bob").fingerprint().hex().substr(0, 7)).size(),
              0u)
        << "a prefix shorter than 8 digits matches nothing";
    std::string upper = testing::testIdentity("bob").fingerprint().hex().substr(0, 8);
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(paired.forget(upper).size(), 1u);
    EXPECT_EQ(paired.list().size(), 1u);
    EXPECT_EQ(paired.forget("Alice's new desk").size(), 1u);
    EXPECT_TRUE(paired.list().empty());

    testing::writeFile(home.path() / "kestrelvane/peers.json", R"({"devices":[{"name":"x"}]})");
    EXPECT_PRED2(startsWith, outcomeOf([&] { paired.list(); }),
                 "other: " + (home.path() / "kestrelvane/peers.json").string() +
                     ": not a list of paired devices");
}

/// The outcomes of a handshake between a client pinned to `pin` (or not)
/// and a server of identity `server`: "client: …", "server: …".
std::pair<std::string, std::string>
handshake(const std::string& server, std::optional<Fingerprint> pin, Fingerprint* shown = nullptr) {
    TcpListener listener(0, TcpListener::Scope::loopback);
    TlsStream client(std::make_shared<TcpConnection>("127.0.0.1", listener.port()),
                     TlsStream::Role::client, testing::testIdentity("alice"), pin);
    auto clientEnd =
        std::async(std::launch::async, [&] { return outcomeOf([&] { client.start(); }); });
    TlsStream accepted(listener.accept(), TlsStream::Role::server, testing::testIdentity(server));
    accepted.connection().setIdleTimeout(std::chrono::seconds(10));
    const std::string serverEnd = outcomeOf([&] { accepted.start(); });
    const std::string clientOutcome = clientEnd.get();
    if (shown != nullptr) {
        *shown = client.peerFingerprint();
    }
    return {clientOutcome, serverEnd};
}

TEST(TlsStream, AClientPinnedToAnotherKeyStopsBeforeShowingItsOwn) {
    const auto [client, server] = handshake("mallory", testing::testIdentity("bob").fingerprint());
    EXPECT_EQ(client, "refused: stream refused: the peer's key is not the one pinned");
    EXPECT_PRED2(startsWith, server, "errno 71: TLS handshake failed")
        << "the server got as far as the client's certificate";
    Fingerprint shown;
    handshake("mallory", testing::testIdentity("bob").fingerprint(), &shown);
    EXPECT_EQ(shown, testing::testIdentity("mallory").fingerprint());
    EXPECT_EQ(handshake("bob", testing::testIdentity("bob").fingerprint(), &shown),
              std::make_pair(std::string("returned"), std::string("returned")));
    EXPECT_EQ(shown, testing::testIdentity("bob").fingerprint());
}

} // namespace
} // namespace kestrelvane
