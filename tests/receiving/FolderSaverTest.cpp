#include "KestrelvaneKit/receiving/FolderSaver.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "support/FileSizeLimit.h"
#include "support/SystemCallFault.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono;
using testing::TemporaryFolder;

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// A received file waiting in a temporary folder, as the server hands it over.
fs::path received(const fs::path& folder, const std::string& contents) {
    static int counter = 0;
    const fs::path path = folder / ("received-" + std::to_string(counter++));
    std::ofstream(path, std::ios::binary) << contents;
    return path;
}

BatchOutcome saveOne(FolderSaver& saver, const fs::path& file, const FileHeader& header) {
    saver.enqueue(file, header);
    return saver.outcomes().next().value();
}

/// Folders for the received files and the saved ones, and a saver into the
/// latter.
class FolderSaverTest : public ::testing::Test {
protected:
    FolderSaver& begin(const SessionHeader& session = {}) {
        saver_.emplace(destination.path());
        saver_->begin(session);
        return *saver_;
    }

    TemporaryFolder temporary;
    TemporaryFolder destination;

private:
    std::optional<FolderSaver> saver_;
};

TEST_F(FolderSaverTest, MovesFilesIntoTheAlbumWithTheirCaptureDateAndNeverOverwrites) {
    FolderSaver& saver = begin(SessionHeader{.albumName = "Trip"});
    const Timestamp captured = sys_days{2024y / 3 / 5} + 14h + 7min + 9s;
    const FileHeader header{.name = "IMG_1.jpg", .creationDate = captured};

    for (const char* contents : {"first", "second", "third"}) {
        const fs::path file = received(temporary.path(), contents);
        EXPECT_EQ(saveOne(saver, file, header), (BatchOutcome{.name = "IMG_1.jpg"}));
        EXPECT_FALSE(fs::exists(file));
    }
    const fs::path album = destination.path() / "Trip";
    EXPECT_EQ(readText(album / "IMG_1.jpg"), "first");
    EXPECT_EQ(readText(album / "IMG_1 (1).jpg"), "second");
    EXPECT_EQ(readText(album / "IMG_1 (2).jpg"), "third");
    struct stat status {};
    ASSERT_EQ(::stat((album / "IMG_1 (1).jpg").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, system_clock::to_time_t(captured));
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, WithoutAnAlbumSavesIntoTheFolderItself) {
    FolderSaver& saver = begin();
    EXPECT_EQ(saveOne(saver, received(temporary.path(), "x"), FileHeader{.name = "README"}).status,
              Ack::Status::ok);
    EXPECT_EQ(saveOne(saver, received(temporary.path(), "y"), FileHeader{.name = "README"}).status,
              Ack::Status::ok);
    EXPECT_EQ(destination.fileNames(), (std::vector<std::string>{"README", "README (1)"}));
    saver.flushAndDrain();
    EXPECT_EQ(saver.outcomes().next(), std::nullopt);
}

TEST_F(FolderSaverTest, AResentFileAlreadyThereCountsAsSavedWithoutASecondCopy) {
    FolderSaver& saver = begin();
    const auto headerOf = [](const std::string& contents) {
        return FileHeader{
            .name = "IMG_7.jpg",
            .byteCount = contents.size(),
            .sha256 = Checksum::sha256Hex(
                ByteView(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size()))};
    };
    // The same name with other bytes of the same size is another file; a
    // resend of either is recognised under the name it was given.
    for (const char* contents : {"photo-a", "photo-b", "photo-a", "photo-b", "photo-b"}) {
        const fs::path file = received(temporary.path(), contents);
        EXPECT_EQ(saveOne(saver, file, headerOf(contents)), (BatchOutcome{.name = "IMG_7.jpg"}));
        EXPECT_FALSE(fs::exists(file));
    }
    EXPECT_EQ(destination.fileNames(), (std::vector<std::string>{"IMG_7 (1).jpg", "IMG_7.jpg"}));
    EXPECT_EQ(readText(destination.path() / "IMG_7.jpg"), "photo-a");
    EXPECT_EQ(readText(destination.path() / "IMG_7 (1).jpg"), "photo-b");
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST(FolderSaver, RefusesNamesAndAlbumsThatCouldLeaveTheFolder) {
    TemporaryFolder temporary;
    TemporaryFolder outer;
    const fs::path root = outer.path() / "inbox";
    fs::create_directory(root);

    FolderSaver names(root);
    names.begin(SessionHeader{});
    for (const std::string& name : std::vector<std::string>{
             "../x.jpg", "a/b.jpg", "..", ".", "", std::string("a\0b.jpg", 7), "/etc/passwd"}) {
        const fs::path file = received(temporary.path(), "evil");
        const BatchOutcome outcome = saveOne(names, file, FileHeader{.name = name});
        EXPECT_EQ(outcome.status, Ack::Status::error) << name;
        EXPECT_EQ(outcome.message, "refused unsafe file name");
        EXPECT_FALSE(fs::exists(file));
    }
    for (const std::string& album : std::vector<std::string>{"..", "../elsewhere", "a/b", ""}) {
        FolderSaver saver(root);
        saver.begin(SessionHeader{.albumName = album});
        const BatchOutcome outcome =
            saveOne(saver, received(temporary.path(), "evil"), FileHeader{.name = "ok.jpg"});
        EXPECT_EQ(outcome.status, Ack::Status::error) << album;
        EXPECT_EQ(outcome.message, "refused unsafe album name");
    }
    EXPECT_TRUE(fs::is_empty(root));
    EXPECT_EQ(outer.fileNames(), std::vector<std::string>{"inbox"});
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Copies across file systems: files received on /dev/shm, skipped where that
/// is the destination's file system (nothing would be copied then).
class FolderSaverAcrossFileSystems : public FolderSaverTest {
protected:
    void SetUp() override {
        struct stat shm {
        }, dest{};
        if (::stat("/dev/shm", &shm) != 0 || ::stat(destination.path().c_str(), &dest) != 0 ||
            shm.st_dev == dest.st_dev) {
            GTEST_SKIP()
                << "needs /dev/shm on a different file system from the temporary directory";
        }
    }

    /// Named by process: other test processes use /dev/shm at the same time.
    fs::path receivedOnShm(const std::string& contents) {
        const fs::path path = "/dev/shm/kv-folder-saver-" + std::to_string(::getpid());
        std::ofstream(path, std::ios::binary) << contents;
        return path;
    }
};

TEST_F(FolderSaverAcrossFileSystems, CopiesWithoutLeavingPartialFiles) {
    const fs::path file = receivedOnShm("across");
    FolderSaver& saver = begin(SessionHeader{.albumName = "Album"});
    EXPECT_EQ(saveOne(saver, file, FileHeader{.name = "IMG_2.heic"}).status, Ack::Status::ok);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readText(destination.path() / "Album" / "IMG_2.heic"), "across");
    EXPECT_EQ(namesIn(destination.path() / "Album"), std::vector<std::string>{"IMG_2.heic"});
}

TEST_F(FolderSaverAcrossFileSystems, ACopyKeepsTheDateAndItsResendLeavesNoPartialFile) {
    const Timestamp taken = Timestamp(seconds(1'600'000'000));
    const FileHeader header{.name = "IMG_4.heic",
                            .byteCount = 6,
                            .sha256 = Checksum::sha256Hex(asBytes("across")),
                            .creationDate = taken};
    for (int round = 0; round < 2; ++round) {
        const fs::path file = receivedOnShm("across");
        FolderSaver& saver = begin();
        EXPECT_EQ(saveOne(saver, file, header).status, Ack::Status::ok) << "round " << round;
        EXPECT_FALSE(fs::exists(file));
    }
    // The resend is recognised as the file already there: one file, no copy.
    EXPECT_EQ(namesIn(destination.path()), std::vector<std::string>{"IMG_4.heic"});
    EXPECT_EQ(fs::last_write_time(destination.path() / "IMG_4.heic").time_since_epoch(),
              fs::file_time_type::clock::from_sys(taken).time_since_epoch());
}

// The hidden name a copy goes under first must not be what makes a long
// (but valid) name fail.
TEST_F(FolderSaverAcrossFileSystems, ALongNameIsSavedToo) {
    const fs::path file = receivedOnShm("long");
    const std::string name = std::string(251, 'n') + ".jpg"; // 255 bytes, the most a name may have
    FolderSaver& saver = begin();
    const BatchOutcome outcome = saveOne(saver, file, FileHeader{.name = name});
    EXPECT_EQ(outcome.status, Ack::Status::ok) << outcome.message.value_or("");
    EXPECT_EQ(namesIn(destination.path()), std::vector<std::string>{name});
}

// The copy across file systems runs out of room half-way: the file is
// reported failed with the system's message, and neither the partial copy
// nor the received file stays behind.
TEST_F(FolderSaverAcrossFileSystems, ACopyThatDoesNotFitFailsAndLeavesNothingBehind) {
    const fs::path file = receivedOnShm(std::string(200'000, 'x'));
    FolderSaver& saver = begin(SessionHeader{.albumName = "Album"});
    BatchOutcome outcome;
    {
        const testing::FileSizeLimit limit(64 * 1024);
        outcome = saveOne(saver, file, FileHeader{.name = "IMG_3.heic"});
    }
    EXPECT_EQ(outcome.status, Ack::Status::error);
    EXPECT_EQ(outcome.message, std::generic_category().message(EFBIG));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(namesIn(destination.path() / "Album").empty());
}

TEST(FolderSaver, ReportsTheSystemsMessageWhenTheFolderIsUnusable) {
    TemporaryFolder temporary;
    FolderSaver saver(temporary.path() / "does-not-exist");
    saver.begin(SessionHeader{});
    const fs::path file = received(temporary.path(), "data");
    const BatchOutcome outcome = saveOne(saver, file, FileHeader{.name = "a.jpg"});
    EXPECT_EQ(outcome.status, Ack::Status::error);
    EXPECT_EQ(outcome.message, std::generic_category().message(ENOENT));
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(FolderSaverTest, WhenEveryNameIsTakenTheFileFailsAndNothingIsOverwritten) {
    for (int attempt = 0; attempt < FolderSaver::maxNameAttempts; ++attempt) {
        std::ofstream(destination.path() / (attempt == 0
                                                ? std::string("a.jpg")
                                                : "a (" + std::to_string(attempt) + ").jpg"))
            << "older";
    }
    FolderSaver& saver = begin();
    const fs::path file = received(temporary.path(), "newer");
    const BatchOutcome outcome = saveOne(saver, file, FileHeader{.name = "a.jpg"});
    EXPECT_EQ(outcome.status, Ack::Status::error);
    EXPECT_EQ(outcome.message, std::generic_category().message(EEXIST));
    EXPECT_EQ(destination.fileNames().size(),
              static_cast<std::size_t>(FolderSaver::maxNameAttempts));
    EXPECT_EQ(readText(destination.path() / "a (9999).jpg"), "older");
    EXPECT_FALSE(fs::exists(file));
}

using testing::SystemCallFault;

// The promise behind "ok": a file whose data the disk would not make durable
// is never reported saved, and never takes its name.
TEST_F(FolderSaverTest, AFileWhoseDataCannotBeMadeDurableIsNeverReportedSaved) {
    FolderSaver& saver = begin();
    const fs::path file = received(temporary.path(), "data");
    BatchOutcome outcome;
    {
        const SystemCallFault fault(SystemCallFault::Call::fsync, EIO,
                                    SystemCallFault::Target::files);
        outcome = saveOne(saver, file, FileHeader{.name = "a.jpg"});
    }
    EXPECT_GE(SystemCallFault::failures(SystemCallFault::Call::fsync), 1);
    EXPECT_EQ(outcome.status, Ack::Status::error);
    EXPECT_EQ(outcome.message, std::generic_category().message(EIO));
    EXPECT_TRUE(destination.fileNames().empty());
    EXPECT_FALSE(fs::exists(file));
}

// Named but not durably: none of the group is reported saved. The names stay,
// so that a resend finds the file already there, syncs it again and says "ok"
// without a second copy.
TEST_F(FolderSaverTest, WhenTheFolderCannotBeSyncedTheFileIsReportedOnlyOnceAResendSucceeds) {
    const FileHeader header{
        .name = "a.jpg", .byteCount = 4, .sha256 = Checksum::sha256Hex(asBytes("data"))};
    {
        const SystemCallFault fault(SystemCallFault::Call::fsync, EIO,
                                    SystemCallFault::Target::folders);
        const BatchOutcome outcome = saveOne(begin(), received(temporary.path(), "data"), header);
        EXPECT_EQ(outcome.status, Ack::Status::error);
        EXPECT_EQ(outcome.message, std::generic_category().message(EIO));
    }
    EXPECT_EQ(saveOne(begin(), received(temporary.path(), "data"), header).status, Ack::Status::ok);
    EXPECT_EQ(destination.fileNames(), std::vector<std::string>{"a.jpg"});
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, AModeOrDateThatCannotBeSetFailsTheFileWithTheSystemsMessage) {
    FolderSaver& saver = begin();
    for (const auto call : {SystemCallFault::Call::chmod, SystemCallFault::Call::utimensat}) {
        const SystemCallFault fault(call, EPERM);
        const BatchOutcome outcome =
            saveOne(saver, received(temporary.path(), "data"),
                    FileHeader{.name = "a.jpg", .creationDate = Timestamp(seconds(1'000'000'000))});
        EXPECT_EQ(outcome.status, Ack::Status::error);
        EXPECT_EQ(outcome.message, std::generic_category().message(EPERM));
    }
    EXPECT_TRUE(destination.fileNames().empty());
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, AReceivedFileThatVanishedIsReportedWithTheSystemsMessage) {
    FolderSaver& saver = begin();
    const BatchOutcome outcome =
        saveOne(saver, temporary.path() / "cleaned-away", FileHeader{.name = "a.jpg"});
    EXPECT_EQ(outcome.status, Ack::Status::error);
    EXPECT_EQ(outcome.message, std::generic_category().message(ENOENT));
    EXPECT_TRUE(destination.fileNames().empty());
}

// A file handed over after the session's flush (the reader lost a race with
// the end of the session) is still saved, though nobody hears about it.
TEST_F(FolderSaverTest, AFileHandedOverAfterTheFlushIsStillSaved) {
    FolderSaver& saver = begin();
    saver.flushAndDrain();
    saver.enqueue(received(temporary.path(), "late"), FileHeader{.name = "late.jpg"});
    EXPECT_EQ(readText(destination.path() / "late.jpg"), "late");
    EXPECT_FALSE(saver.outcomes().next());
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, AFastRunOfFilesIsSavedAndReportedInTheOrderItCame) {
    FolderSaver& saver = begin();
    // Enqueued back to back, so most of them wait and are saved as groups,
    // more than fit in one.
    const int count = static_cast<int>(FolderSaver::maxGroupFiles) + 60;
    std::vector<BatchOutcome> expected;
    for (int i = 0; i < count; ++i) {
        const std::string name =
            i == 30 ? "../escape.jpg" : "IMG_" + std::to_string(i % 20) + ".jpg";
        saver.enqueue(received(temporary.path(), "photo " + std::to_string(i)),
                      FileHeader{.name = name});
        expected.push_back(i == 30
                               ? BatchOutcome{name, Ack::Status::error, "refused unsafe file name"}
                               : BatchOutcome{.name = name});
    }
    std::vector<BatchOutcome> outcomes;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        outcomes.push_back(saver.outcomes().next().value());
    }
    EXPECT_EQ(outcomes, expected);
    // Reported means saved: each name holds the bytes of the file that took it.
    EXPECT_EQ(readText(destination.path() / "IMG_7.jpg"), "photo 7");
    EXPECT_EQ(readText(destination.path() / "IMG_7 (1).jpg"), "photo 27");
    EXPECT_EQ(readText(destination.path() / "IMG_7 (2).jpg"), "photo 47");
    EXPECT_EQ(destination.fileNames().size(), static_cast<std::size_t>(count - 1));
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, FlushSavesWhatIsStillWaitingBeforeTheOutcomesEnd) {
    FolderSaver& saver = begin(SessionHeader{.albumName = "Late"});
    for (int i = 0; i < 10; ++i) {
        saver.enqueue(received(temporary.path(), "x"), FileHeader{.name = std::to_string(i)});
    }
    saver.flushAndDrain();
    int reported = 0;
    while (const auto outcome = saver.outcomes().next()) {
        EXPECT_EQ(outcome->name, std::to_string(reported));
        EXPECT_EQ(outcome->status, Ack::Status::ok);
        ++reported;
    }
    EXPECT_EQ(reported, 10);
    EXPECT_EQ(destination.fileNames(), std::vector<std::string>{"Late"});
    EXPECT_EQ(std::distance(fs::directory_iterator(destination.path() / "Late"),
                            fs::directory_iterator()),
              10);
    EXPECT_TRUE(temporary.fileNames().empty());
}

TEST_F(FolderSaverTest, ASaverDroppedWithoutAFlushStillSavesWhatItWasGiven) {
    {
        FolderSaver saver(destination.path());
        saver.begin(SessionHeader{});
        saver.enqueue(received(temporary.path(), "kept"), FileHeader{.name = "a.jpg"});
    }
    EXPECT_EQ(readText(destination.path() / "a.jpg"), "kept");
    EXPECT_TRUE(temporary.fileNames().empty());
}

} // namespace
} // namespace kestrelvane
