// The sending engine against the receiving engine, over an in-memory
// connection and over a real connected socket pair.
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "KestrelvaneKit/usb/UsbmuxdStream.h"
#include "support/FailingSaver.h"
#include "support/MemoryStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <random>
#include <set>
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

/// Sends a batch of files of the given sizes, named as given, with random
/// contents, over the parameter's connection: the client on the test's
/// thread, the server on another. The log is kept in memory.
class TransferEndToEndOver : public ::testing::TestWithParam<Connection> {
protected:
    TransferEndToEndOver() : previousSink_(KVLog::setSink(log)) {}
    ~TransferEndToEndOver() override { KVLog::setSink(previousSink_); }

    std::vector<Ack> send(BatchSaving& saver,
                          const std::vector<std::pair<std::string, std::size_t>>& batch,
                          const SessionHeader& session = {},
                          ReceiveMode serverReceives = ReceiveMode::whatIsThere) {
        std::vector<fs::path> files;
        unsigned seed = 1;
        for (const auto& [name, size] : batch) {
            originals[name] = randomText(size, seed++);
            sent.insert(name);
            files.push_back(source.path() / name);
            std::ofstream(files.back(), std::ios::binary) << originals[name];
        }
        auto [near, far] = connectedPair(GetParam(), serverReceives);
        FrameChannel serverChannel(far);
        auto served = std::async(std::launch::async, [&] {
            TransferServer(saver, temporary.path()).run(serverChannel, {});
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

    /// The names acknowledged, each as often as it was: the batch's names
    /// when every file was acknowledged once.
    static std::multiset<std::string> names(const std::vector<Ack>& acks) {
        std::multiset<std::string> names;
        for (const Ack& ack : acks) {
            names.insert(ack.name);
        }
        return names;
    }

    TemporaryFolder source, temporary, destination;
    std::map<std::string, std::string> originals;
    std::multiset<std::string> sent;
    const std::shared_ptr<KVLog::MemorySink> log = std::make_shared<KVLog::MemorySink>();

private:
    std::shared_ptr<KVLog::Sink> previousSink_;
};

TEST_P(TransferEndToEndOver, EveryFileArrivesByteForByteInItsAlbum) {
    FolderSaver saver(destination.path());
    const auto acks = send(saver,
                           {{"IMG_0001.HEIC", 1'048'576 * 3 + 17},
                            {"empty.jpg", 0},
                            {"clip.MOV", 700'000},
                            {"IMG_0002.jpg", 1}},
                           SessionHeader{.albumName = "Holiday 2024"});

    EXPECT_EQ(names(acks), sent);
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
        EXPECT_EQ(readText(destination.path() / "Holiday 2024" / ack.name), originals[ack.name])
            << ack.name;
    }
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_P(TransferEndToEndOver, FilesTheSaverRejectsComeBackAsErrorsBesideTheSavedOnes) {
    std::map<std::string, std::string> saved;
    TestBatchSaver inner([&](const fs::path& file, const FileHeader& header) {
        saved[header.name] = readText(file);
    });
    testing::FailingSaver saver(inner, {.failing = {1, 3}, .message = "disk full"});
    // In memory the server takes the bytes one at a time.
    const auto acks =
        send(saver, {{"a.jpg", 2000}, {"b.jpg", 10}, {"c.mov", 30'000}, {"d.png", 0}, {"e.jpg", 1}},
             {}, ReceiveMode::oneByteAtATime);

    EXPECT_EQ(names(acks), sent);
    for (const auto& ack : acks) {
        if (ack.name == "b.jpg" || ack.name == "d.png") {
            EXPECT_EQ(
                ack, (Ack{.name = ack.name, .status = Ack::Status::error, .message = "disk full"}));
        } else {
            EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name;
            EXPECT_EQ(saved[ack.name], originals[ack.name]) << ack.name;
        }
    }
    EXPECT_EQ(saved.size(), 3u);
    const auto lines = log->messages();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) {
                                return line.starts_with("SUMMARY files=5 ok=3 failed=2 ");
                            }),
              1);
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_P(TransferEndToEndOver, AnAlbumThatWouldLeaveTheFolderFailsEveryFile) {
    FolderSaver refusing(destination.path());
    const auto acks =
        send(refusing, {{"a.jpg", 5}, {"b.jpg", 5}}, SessionHeader{.albumName = "../out"});
    EXPECT_EQ(names(acks), sent);
    for (const auto& ack : acks) {
        EXPECT_EQ(ack, (Ack{.name = ack.name,
                            .status = Ack::Status::error,
                            .message = "refused unsafe album name"}));
    }
    EXPECT_TRUE(fs::is_empty(destination.path()));
    EXPECT_TRUE(temporary.fileNames().empty());
}

INSTANTIATE_TEST_SUITE_P(Connections, TransferEndToEndOver,
                         ::testing::Values(Connection::inMemory, Connection::socketPair),
                         [](const ::testing::TestParamInfo<Connection>& param) {
                             return param.param == Connection::inMemory ? "InMemory" : "SocketPair";
                         });

} // namespace
} // namespace kestrelvane
