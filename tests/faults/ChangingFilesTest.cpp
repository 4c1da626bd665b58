// Files that change between planning a batch and sending it: whatever they
// become, the send reports it in words or sends what it hashed, never hangs,
// and what was saved stays saved.
#include "KestrelvaneKit/sending/PreparedFile.h"
#include "support/CaughtError.h"
#include "support/EngineSession.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"
#include "support/UnprivilegedChild.h"

#include <gtest/gtest.h>

#include <functional>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

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
    {"BecomesUnreadable", [](const fs::path& file) { fs::permissions(file, fs::perms::none); },
     "Permission denied"},
    {"Shrinks", [](const fs::path& file) { fs::resize_file(file, 10); }, std::nullopt},
    {"Grows", [](const fs::path& file) { writeFile(file, readText(file) + "grown"); },
     std::nullopt},
};

void PrintTo(const Change& change, std::ostream* out) {
    *out << change.name;
}

class FileChangedBeforeSending : public ::testing::TestWithParam<Change> {};

// Run as an ordinary user, as users run it: root reads what it may not.
TEST_P(FileChangedBeforeSending, IsReportedOrSentAsReadAndNothingElseIsLost) {
    const int status = runUnprivileged([] {
        const Change& change = GetParam();
        TemporaryFolder source, destination, scratch;
        std::vector<fs::path> files;
        for (const char* name : {"a.jpg", "b.jpg", "c.mov"}) {
            files.push_back(writeFile(source.path() / name, pattern(20'000, name[0])));
        }
        change.apply(files[1]);
        EngineSession session;
        ASSERT_TRUE(session.sendToFolder(files, destination.path(), scratch.path()));
        EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), std::vector<std::string>{});
        EXPECT_EQ(session.errorText().has_value(), change.reason.has_value());
        if (change.reason) {
            const auto error = session.errorText().value_or("");
            EXPECT_NE(error.find("b.jpg"), std::string::npos) << error;
            EXPECT_NE(error.find(*change.reason), std::string::npos) << error;
            EXPECT_EQ(session.reportedOk().count("b.jpg"), 0u);
            EXPECT_EQ(session.reportedOk().count("c.mov"), 0u) << "files after it are not sent";
            fs::remove_all(files[1]);
            writeFile(files[1], "b is back");
        }
        // Sending what was not reported saved completes the batch.
        EngineSession resumed;
        ASSERT_TRUE(
            resumed.sendToFolder(session.notReportedOk(files), destination.path(), scratch.path()));
        EXPECT_EQ(resumed.errorText(), std::nullopt);
        EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path()));
        EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), std::vector<std::string>{});
        EXPECT_TRUE(fs::is_empty(scratch.path()));
    });
    if (status == noUnprivilegedChild) {
        GTEST_SKIP() << "no child process could be made to run as an ordinary user";
    }
    EXPECT_EQ(status, 0);
}

INSTANTIATE_TEST_SUITE_P(BetweenPlanningAndSending, FileChangedBeforeSending,
                         ::testing::ValuesIn(changes),
                         [](const auto& change) { return std::string(change.param.name); });

/// A file above the whole-read limit is hashed first and read again while it
/// is sent (sparse, so that it costs no disk). Changed in between, it is never
/// saved: shrunk, it fails the send instead of leaving the receiver short of
/// its announced bytes; grown or rewritten, the receiver finds the mismatch.
TEST(LargeFileChangedWhileSending, ShrinkingFailsTheSendAndGrowingOrRewritingIsAMismatch) {
    for (const bool shrinks : {true, false}) {
        SCOPED_TRACE(shrinks ? "shrinks" : "grows and is rewritten");
        TemporaryFolder folder, destination, scratch;
        const fs::path file = writeFile(folder.path() / "long.mov", "start");
        fs::resize_file(file, PreparedFile::wholeReadLimit + 1'000);
        PreparedFile prepared = PreparedFile::prepare(file, MediaType::video);
        if (shrinks) {
            fs::resize_file(file, 4'000'000);
        } else {
            std::fstream rewrite(file, std::ios::binary | std::ios::in | std::ios::out);
            rewrite << "START";
            rewrite.seekp(0, std::ios::end);
            rewrite << "and more at the end";
        }
        EngineSession session;
        session.serveFolder(destination.path(), scratch.path());
        session.sender().sendFrame(WireMessage::encode(SessionHeader{}));
        session.sender().sendFrame(WireMessage::encode(prepared.header()));
        const auto error =
            errorOf<fs::filesystem_error>([&] { prepared.writeBytes(session.sender()); });
        if (shrinks) {
            ASSERT_TRUE(error) << "a shrunk file was sent";
            EXPECT_NE(std::string(error->what()).find("file shrank while it was being sent"),
                      std::string::npos)
                << error->what();
            EXPECT_EQ(error->path1(), file);
        } else {
            EXPECT_EQ(session.receiveAck(), (Ack{.name = "long.mov",
                                                 .status = Ack::Status::error,
                                                 .message = "checksum mismatch"}));
        }
        ASSERT_TRUE(session.finish());
        EXPECT_TRUE(fs::is_empty(destination.path()));
        EXPECT_TRUE(fs::is_empty(scratch.path()));
    }
}

} // namespace
} // namespace kestrelvane
