// The sending engine against the receiving engine over TCP on loopback.
#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/TcpListener.h"
#include "KestrelvaneKit/receiving/FolderSaver.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/TransferClient.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryFolder;

TEST(TransferOverTcp, EveryFileArrivesByteForByteThroughTheListener) {
    TemporaryFolder source, temporary, destination;
    std::map<std::string, Bytes> originals;
    std::vector<fs::path> files;
    for (const auto& [name, size] :
         {std::pair{"IMG_0001.HEIC", 5 * 1'048'576 + 3}, {"clip.mov", 300'001}, {"empty.png", 0}}) {
        originals[name] = testing::pattern(size, static_cast<std::uint8_t>(files.size()));
        files.push_back(testing::writeFile(source.path() / name, originals[name]));
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

    ASSERT_EQ(acks.size(), files.size());
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.status, Ack::Status::ok) << ack.name << ": " << ack.message.value_or("");
        EXPECT_TRUE(testing::readBytes(destination.path() / "Over the air" / ack.name) ==
                    originals[ack.name])
            << ack.name;
    }
    EXPECT_TRUE(temporary.fileNames().empty());
}

} // namespace
} // namespace kestrelvane
