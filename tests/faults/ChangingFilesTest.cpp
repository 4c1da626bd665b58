// Files that change between planning a batch and sending it: whatever they
// become, the send reports it in words or sends what it hashed, never hangs,
// and what was saved stays saved.
#include "FaultySession.h"
#include "KestrelvaneKit/log/KVLog.h"
#include "KestrelvaneKit/receiving/TransferServer.h"
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "KestrelvaneKit/wire/WireMessage.h"
#include "support/MemoryStream.h"
#include "support/ScriptedStream.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::FaultySession;
using testing::filesUnder;
using testing::sameContents;
using testing::TemporaryFolder;

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

struct Change {
    const char* name;
    std::function<void(const fs::path&)> apply;
    /// What the send says when it cannot send the file; nothing when it sends it.
    std::optional<std::string> reason;
};

const Change changes[] = {
    {"Vanishes", [](const fs::path& file) { fs::remove(file); }, "No such file or directory"},
    {"BecomesAFolder",
     [](const fs::path& file) {
         fs::remove(file);
         fs::create_directory(file);
     },
     "not a regular file"},
    {"BecomesAPipeNobodyWritesTo",
     [](const fs::path& file) {
         fs::remove(file);
         ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
     },
     "not a regular file"},
    {"BecomesUnreadable",
     [](const fs::path& file) {
         fs::permissions(file, fs::perms::none);
         if (std::ifstream(file).good()) {
             GTEST_SKIP() << "permissions do not stop this user reading (root)";
         }
     },
     "Permission denied"},
    {"Shrinks", [](const fs::path& file) { fs::resize_file(file, 10); }, std::nullopt},
    {"Grows",
     [](const fs::path& file) { std::ofstream(file, std::ios::app) << std::string(5000, 'g'); },
     std::nullopt},
};

void PrintTo(const Change& change, std::ostream* out) {
    *out << change.name;
}

class FileChangedBeforeSending : public ::testing::TestWithParam<Change> {
protected:
    FileChangedBeforeSending() {
        previousSink_ = KVLog::setSink(std::make_shared<KVLog::MemorySink>());
    }
    ~FileChangedBeforeSending() override { KVLog::setSink(previousSink_); }

private:
    std::shared_ptr<KVLog::Sink> previousSink_;
};

TEST_P(FileChangedBeforeSending, IsReportedOrSentAsReadAndNothingElseIsLost) {
    const Change& change = GetParam();
    TemporaryFolder source, destination, scratch;
    std::vector<fs::path> files;
    for (const char* name : {"a.jpg", "b.jpg", "c.mov"}) {
        files.push_back(source.path() / name);
        writeText(files.back(), std::string(20'000, name[0]));
    }
    change.apply(files[1]);
    if (::testing::Test::IsSkipped()) {
        return;
    }

    const auto result = FaultySession::send(files, destination.path(), scratch.path());
    ASSERT_TRUE(result.senderReturned) << "the sender hung";
    ASSERT_TRUE(result.receiverReturned) << "the receiver hung";
    EXPECT_EQ(scratch.fileNames(), std::vector<std::string>{});
    for (const auto& name : result.reportedOk()) {
        EXPECT_TRUE(sameContents(destination.path() / name, source.path() / name)) << name;
    }
    if (!change.reason) {
        EXPECT_EQ(result.senderError, std::nullopt);
        EXPECT_EQ(result.reportedOk().size(), 3u);
        EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path()));
        return;
    }
    ASSERT_TRUE(result.senderError) << "the send did not say that b.jpg could not be read";
    EXPECT_NE(result.senderError->find("b.jpg"), std::string::npos) << *result.senderError;
    EXPECT_NE(result.senderError->find(*change.reason), std::string::npos) << *result.senderError;
    EXPECT_EQ(result.reportedOk().count("b.jpg"), 0u);
    EXPECT_EQ(result.reportedOk().count("c.mov"), 0u) << "files after it are not sent";

    // Once the file is back, sending what was not reported saved completes the batch.
    std::error_code ignored;
    fs::permissions(files[1], fs::perms::owner_all, ignored);
    fs::remove_all(files[1]);
    writeText(files[1], "b is back");
    std::vector<fs::path> rest;
    for (const auto& file : files) {
        if (result.reportedOk().count(file.filename().string()) == 0) {
            rest.push_back(file);
        }
    }
    const auto resumed = FaultySession::send(rest, destination.path(), scratch.path());
    ASSERT_TRUE(resumed.senderReturned && resumed.receiverReturned);
    EXPECT_EQ(resumed.senderError, std::nullopt);
    EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path()));
    for (const auto& name : filesUnder(source.path())) {
        EXPECT_TRUE(sameContents(destination.path() / name, source.path() / name)) << name;
    }
    EXPECT_EQ(scratch.fileNames(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(BetweenPlanningAndSending, FileChangedBeforeSending,
                         ::testing::ValuesIn(changes),
                         [](const auto& change) { return std::string(change.param.name); });

/// A file above the whole-read limit, so that it is hashed first and read
/// again while it is sent; sparse, so that it costs no disk.
fs::path largeFile(const fs::path& folder) {
    const fs::path path = folder / "long.mov";
    writeText(path, "start");
    fs::resize_file(path, PreparedFile::wholeReadLimit + 1'000);
    return path;
}

TEST(LargeFileChangedWhileSending, ShrinkingFailsTheSendInsteadOfShortingTheReceiver) {
    TemporaryFolder folder;
    const fs::path file = largeFile(folder.path());
    PreparedFile prepared = PreparedFile::prepare(file, MediaType::video);
    fs::resize_file(file, 4'000'000);
    auto stream = std::make_shared<testing::ScriptedStream>();
    FrameChannel channel(stream);
    try {
        prepared.writeBytes(channel);
        FAIL() << "a shrunk file was sent";
    } catch (const fs::filesystem_error& error) {
        EXPECT_NE(std::string(error.what()).find("file shrank while it was being sent"),
                  std::string::npos)
            << error.what();
        EXPECT_EQ(error.path1(), file);
    }
    std::uint64_t sent = 0;
    for (const auto& piece : stream->sent) {
        sent += piece.size();
    }
    EXPECT_LT(sent, prepared.header().byteCount);
}

TEST(LargeFileChangedWhileSending, GrowingOrRewritingIsAnsweredAsAChecksumMismatch) {
    TemporaryFolder folder, scratch;
    const fs::path file = largeFile(folder.path());
    PreparedFile prepared = PreparedFile::prepare(file, MediaType::video);
    {
        std::fstream rewrite(file, std::ios::binary | std::ios::in | std::ios::out);
        rewrite << "START";
        rewrite.seekp(0, std::ios::end);
        rewrite << "and more at the end";
    }

    auto [near, far] = testing::makeMemoryStreamPair();
    FrameChannel serverChannel(far);
    std::vector<BatchOutcome> saved;
    TestBatchSaver saver([&](const fs::path&, const FileHeader& header) {
        saved.push_back(BatchOutcome{.name = header.name});
    });
    std::vector<Ack> acks;
    auto served = std::async(std::launch::async,
                             [&] { TransferServer(saver, scratch.path()).run(serverChannel, {}); });
    FrameChannel channel(near);
    channel.sendFrame(WireMessage::encode(SessionHeader{}));
    channel.sendFrame(WireMessage::encode(prepared.header()));
    prepared.writeBytes(channel);
    const Ack ack = WireMessage::decode<Ack>(channel.receiveFrame());
    near->finishSending();
    ASSERT_EQ(served.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(
        ack,
        (Ack{.name = "long.mov", .status = Ack::Status::error, .message = "checksum mismatch"}));
    EXPECT_TRUE(saved.empty());
    EXPECT_EQ(scratch.fileNames(), std::vector<std::string>{});
}

} // namespace
} // namespace kestrelvane
