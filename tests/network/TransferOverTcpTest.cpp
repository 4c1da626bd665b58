// The sending engine against the receiving engine over TCP on loopback.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryFolder;

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(TransferOverTcp, EveryFileArrivesByteForByteThroughTheListener) {
    TemporaryFolder source, temporary, destination;
    std::map<std::string, std::string> originals;
    std::vector<fs::path> files;
    std::mt19937 random(7);
    const std::vector<std::pair<std::string, std::size_t>> batch{
        {"IMG_0001.HEIC", 5 * 1'048'576 + 3}, {"clip.mov", 300'001}, {"empty.png", 0}};
    for (const auto& [name, size] : batch) {
        std::string bytes(size, '\0');
        for (auto& c : bytes) {
            c = static_cast<char>(random());
        }
        originals[name] = bytes;
        files.push_back(source.path() / name);
        std::ofstream(files.back(), std::ios::binary) << bytes;
    }

    TcpListener listener(0, TcpListener::Scope::loopback);
    FolderSaver saver(destination.path());
    std::jthread receiver([&] {
        // Serves sessions until stopped, as a receiving application would.
        while (auto connection = listener.accept()) {
            FrameChannel channel(std::make_shared<BonjourStream>(connection));
            channel.start();
            TransferServer(saver, temporary.path()).run(channel, {});
            channel.cancel();
        }
    });

    FrameChannel channel(std::make_shared<BonjourStream>(
        std::make_shared<TcpConnection>("localhost", listener.port())));
    channel.start();
    const auto acks =
        TransferClient().send(files, channel, SessionHeader{.albumName = "Over the air"});
    channel.cancel();
    listener.stop();
    receiver.join();

    ASSERT_EQ(acks.size(), batch.size());
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
        EXPECT_EQ(readText(destination.path() / "Over the air" / ack.name), originals[ack.name])
            << ack.name;
    }
    EXPECT_TRUE(temporary.fileNames().empty());
}

} // namespace
} // namespace kestrelvane
