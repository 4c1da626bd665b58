// The sending engine against the receiving engine, over an in-memory
// connection and over a real connected socket pair.
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/MemoryStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <random>
#include <sys/socket.h>
#include <system_error>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::makeMemoryStreamPair;
using testing::ReceiveMode;
using testing::TemporaryFolder;

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string randomText(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (auto& c : text) {
        c = static_cast<char>(random());
    }
    return text;
}

enum class Connection { inMemory, socketPair };

/// Two connected ends: the in-memory pair (the receiving end handing out
/// bytes as `serverReceives` says) or a Unix socket pair with the
/// descriptor stream on each end.
std::pair<std::shared_ptr<KestrelvaneStream>, std::shared_ptr<KestrelvaneStream>>
connectedPair(Connection connection, ReceiveMode serverReceives) {
    if (connection == Connection::inMemory) {
        return makeMemoryStreamPair(ReceiveMode::whatIsThere, serverReceives);
    }
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    return {std::make_shared<UsbmuxdStream>(fds[0]), std::make_shared<UsbmuxdStream>(fds[1])};
}

/// Runs a whole send: client on this thread, server on another, both over one
/// connection; returns the client's acknowledgements.
std::vector<Ack> sendThrough(BatchSaving& saver, const std::vector<fs::path>& files,
                             const fs::path& temporary, const SessionHeader& session,
                             ReceiveMode serverReceives = ReceiveMode::whatIsThere,
                             Connection connection = Connection::inMemory) {
    auto [near, far] = connectedPair(connection, serverReceives);
    FrameChannel serverChannel(far);
    auto served = std::async(std::launch::async, [&] {
        TransferServer(saver, temporary).run(serverChannel, {});
        serverChannel.cancel();
    });
    FrameChannel clientChannel(near);
    std::vector<Ack> acks;
    try {
        acks = TransferClient().send(files, clientChannel, session);
    } catch (...) {
        clientChannel.cancel();
        served.wait();
        throw;
    }
    clientChannel.cancel();
    EXPECT_EQ(served.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return acks;
}

class TransferEndToEndOver : public ::testing::TestWithParam<Connection> {};

TEST_P(TransferEndToEndOver, EveryFileArrivesByteForByteInItsAlbum) {
    TemporaryFolder source, temporary, destination;
    std::vector<fs::path> files;
    std::map<std::string, std::string> originals;
    const std::vector<std::pair<std::string, std::size_t>> batch{
        {"IMG_0001.HEIC", 1'048'576 * 3 + 17},
        {"empty.jpg", 0},
        {"clip.MOV", 700'000},
        {"IMG_0002.jpg", 1}};
    unsigned seed = 1;
    for (const auto& [name, size] : batch) {
        originals[name] = randomText(size, seed++);
        files.push_back(source.path() / name);
        std::ofstream(files.back(), std::ios::binary) << originals[name];
    }
    FolderSaver saver(destination.path());
    const auto acks =
        sendThrough(saver, files, temporary.path(), SessionHeader{.albumName = "Holiday 2024"},
                    ReceiveMode::whatIsThere, GetParam());

    ASSERT_EQ(acks.size(), batch.size());
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
        EXPECT_EQ(readText(destination.path() / "Holiday 2024" / ack.name), originals[ack.name])
            << ack.name;
    }
    EXPECT_TRUE(temporary.fileNames().empty());
}

INSTANTIATE_TEST_SUITE_P(Connections, TransferEndToEndOver,
                         ::testing::Values(Connection::inMemory, Connection::socketPair),
                         [](const ::testing::TestParamInfo<Connection>& param) {
                             return param.param == Connection::inMemory ? "InMemory" : "SocketPair";
                         });

TEST(TransferEndToEnd, FilesTheSaverRejectsComeBackAsErrorsAndTheRestIsSaved) {
    TemporaryFolder source, temporary, destination;
    std::vector<fs::path> files;
    for (const char* name : {"a.jpg", "b.jpg"}) {
        files.push_back(source.path() / name);
        std::ofstream(files.back()) << name;
    }
    // An album that would leave the folder makes the saver refuse every file.
    FolderSaver refusing(destination.path());
    const auto refused =
        sendThrough(refusing, files, temporary.path(), SessionHeader{.albumName = "../out"});
    ASSERT_EQ(refused.size(), 2u);
    for (const auto& ack : refused) {
        EXPECT_EQ(ack.status, Ack::Status::error);
        EXPECT_EQ(ack.message, "refused unsafe album name");
    }
    EXPECT_TRUE(fs::is_empty(destination.path()));

    // One byte at a time on the receiving side still gets everything across.
    std::map<std::string, std::string> seen;
    TestBatchSaver testSaver([&](const fs::path& file, const FileHeader& header) {
        seen[header.name] = readText(file);
    });
    const auto acks = sendThrough(testSaver, files, temporary.path(), SessionHeader{},
                                  ReceiveMode::oneByteAtATime);
    ASSERT_EQ(acks.size(), 2u);
    EXPECT_EQ(seen["a.jpg"], "a.jpg");
    EXPECT_EQ(seen["b.jpg"], "b.jpg");
    EXPECT_TRUE(temporary.fileNames().empty());
}

} // namespace
} // namespace kestrelvane
