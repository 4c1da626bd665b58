#include "KestrelvaneKit/receiving/FolderSaver.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "support/EngineSession.h"
#include "support/FileSizeLimit.h"
#include "support/ScopedEnvironment.h"
#include "support/SystemCallFault.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <sys/stat.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace testing;

const Timestamp captured = sys_days{2024y / 3 / 5} + 14h + 7min + 9s;

/// A header as the server hands it over: size, hash and capture date of `contents`.
FileHeader headerFor(const std::string& name, const std::string& contents) {
    return FileHeader{.name = name,
                      .byteCount = contents.size(),
                      .sha256 = Checksum::sha256Hex(asBytes(contents)),
                      .creationDate = captured};
}

/// Received files arrive in a temporary folder on the destination's file
/// system (and are moved into place), or on /dev/shm (and are copied).
class FolderSaverTest : public ::testing::Test {
protected:
    /// Whether received files can come from another file system.
    bool receiveAcrossFileSystems() {
        struct stat shm = {}, dest = {};
        if (::stat("/dev/shm", &shm) != 0 || ::stat(destination.path().c_str(), &dest) != 0 ||
            shm.st_dev == dest.st_dev) {
            return false;
        }
        const ScopedEnvironment tmpdir("TMPDIR", "/dev/shm");
        incoming.emplace();
        return true;
    }
    FolderSaver& begin(const SessionHeader& session = {}, const fs::path& root = {}) {
        saver.emplace(root.empty() ? destination.path() : root);
        saver->begin(session);
        return *saver;
    }
    fs::path received(const std::string& contents) {
        return writeFile(incoming->path() / std::to_string(receivedCount++), contents);
    }
    BatchOutcome save(const std::string& name, const std::string& contents,
                      const std::function<void(const fs::path&)>& beforeEnqueue = {}) {
        const fs::path file = received(contents);
        if (beforeEnqueue) {
            beforeEnqueue(file);
        }
        saver->enqueue(file, headerFor(name, contents));
        const auto outcome = saver->outcomes().next().value();
        EXPECT_FALSE(fs::exists(file)) << "the received file stays behind";
        return outcome;
    }

    TemporaryFolder destination;
    std::optional<TemporaryFolder> incoming{std::in_place};
    std::optional<FolderSaver> saver;
    int receivedCount = 0;
};

/// Files sent into an album one after the other, and what the album then holds.
struct Naming {
    const char* name;
    std::vector<std::pair<std::string, std::string>> sent; ///< name, contents
    std::map<std::string, std::string> stored;             ///< name, contents
};

const Naming namings[] = {
    {"ATakenNameGetsTheNextNumber",
     {{"IMG_1.jpg", "first"}, {"IMG_1.jpg", "second"}, {"IMG_1.jpg", "third"}},
     {{"IMG_1.jpg", "first"}, {"IMG_1 (1).jpg", "second"}, {"IMG_1 (2).jpg", "third"}}},
    {"ANameWithoutAnExtension",
     {{"README", "x"}, {"README", "y"}},
     {{"README", "x"}, {"README (1)", "y"}}},
    // The same name with other bytes of the same size is another file; a
    // resend of either is recognised under the name it was given.
    {"AResendIsSavedOnlyOnce",
     {{"IMG_7.jpg", "photo-a"},
      {"IMG_7.jpg", "photo-b"},
      {"IMG_7.jpg", "photo-a"},
      {"IMG_7.jpg", "photo-b"},
      {"IMG_7.jpg", "photo-b"}},
     {{"IMG_7.jpg", "photo-a"}, {"IMG_7 (1).jpg", "photo-b"}}},
    // The hidden name a copy goes under first must not be what makes a long
    // (but valid) name fail: 255 bytes, the most a name may have.
    {"ALongName",
     {{std::string(251, 'n') + ".jpg", "long"}},
     {{std::string(251, 'n') + ".jpg", "long"}}},
};

class FolderSaverNaming : public FolderSaverTest,
                          public ::testing::WithParamInterface<std::tuple<Naming, bool>> {};

TEST_P(FolderSaverNaming, SavesEachFileWholeUnderAFreeNameInItsAlbumWithItsCaptureDate) {
    const auto& [naming, across] = GetParam();
    if (across && !receiveAcrossFileSystems()) {
        GTEST_SKIP() << "needs /dev/shm on another file system than the temporary folder";
    }
    begin(SessionHeader{.albumName = "Trip"});
    for (const auto& [name, contents] : naming.sent) {
        EXPECT_EQ(save(name, contents), BatchOutcome{.name = name});
    }
    std::map<std::string, std::string> stored;
    for (const auto& name : filesUnder(destination.path())) {
        const fs::path file = destination.path() / name;
        stored[fs::relative(name, "Trip")] = readText(file);
        EXPECT_EQ(fs::last_write_time(file), fs::file_time_type::clock::from_sys(captured)) << name;
        EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644)) << name;
    }
    EXPECT_EQ(stored, naming.stored);
    EXPECT_TRUE(fs::is_empty(incoming->path()));
}

INSTANTIATE_TEST_SUITE_P(Cases, FolderSaverNaming,
                         ::testing::Combine(::testing::ValuesIn(namings), ::testing::Bool()),
                         [](const auto& param) {
                             return std::string(std::get<0>(param.param).name) +
                                    (std::get<1>(param.param) ? "AcrossFileSystems" : "");
                         });

/// A file that cannot be saved fails with the system's message and takes no
/// name; `fault` makes it fail, for as long as what it returns lives.
struct Failure {
    const char* name;
    int error;
    std::function<std::shared_ptr<void>(const fs::path& album, const fs::path& file)> fault;
    bool acrossFileSystems = false;
    /// Named but not durably: the name stays, so that a resend finds the file
    /// already there, syncs it again and says "ok" without a second copy.
    bool nameStays = false;
};

template <class Fault, class... Arguments> auto armed(Arguments... arguments) {
    return [=](const fs::path&, const fs::path&) { return std::make_shared<Fault>(arguments...); };
}
using Call = SystemCallFault::Call;

const Failure failures[] = {
    {"FileDataNotDurable", EIO,
     armed<SystemCallFault>(Call::fsync, EIO, SystemCallFault::Target::files)},
    {"FolderNotDurable", EIO,
     armed<SystemCallFault>(Call::fsync, EIO, SystemCallFault::Target::folders), false, true},
    {"ModeNotSet", EPERM, armed<SystemCallFault>(Call::chmod, EPERM)},
    {"DateNotSet", EPERM, armed<SystemCallFault>(Call::utimensat, EPERM)},
    // A copy across file systems runs out of room half-way.
    {"CopyOutOfRoom", EFBIG, armed<FileSizeLimit>(4096), true},
    {"ReceivedFileVanished", ENOENT,
     [](const fs::path&, const fs::path& file) {
         fs::remove(file);
         return nullptr;
     }},
    {"AlbumIsAFile", EEXIST,
     [](const fs::path& album, const fs::path&) {
         fs::remove(album);
         writeFile(album, "");
         return nullptr;
     }},
    {"EveryNameTaken", EEXIST,
     [](const fs::path& album, const fs::path&) {
         writeFile(album / "a.jpg", "older");
         for (int attempt = 1; attempt < FolderSaver::maxNameAttempts; ++attempt) {
             writeFile(album / ("a (" + std::to_string(attempt) + ").jpg"), "older");
         }
         return nullptr;
     }},
};

class FolderSaverFailure : public FolderSaverTest, public ::testing::WithParamInterface<Failure> {};

TEST_P(FolderSaverFailure, FailsTheFileWithTheSystemsMessageAndPlacesNothing) {
    const Failure& failure = GetParam();
    if (failure.acrossFileSystems && !receiveAcrossFileSystems()) {
        GTEST_SKIP() << "needs /dev/shm on another file system than the temporary folder";
    }
    begin(SessionHeader{.albumName = "Trip"});
    fs::create_directory(destination.path() / "Trip"); // so that only the fault can fail it
    const std::string contents(10'000, 'd');
    std::vector<std::string> before;
    BatchOutcome outcome;
    {
        std::shared_ptr<void> fault;
        outcome = save("a.jpg", contents, [&](const fs::path& file) {
            fault = failure.fault(destination.path() / "Trip", file);
            before = filesUnder(destination.path());
        });
    }
    EXPECT_EQ(outcome, (BatchOutcome{"a.jpg", Ack::Status::error,
                                     std::generic_category().message(failure.error)}));
    if (failure.nameStays) {
        EXPECT_EQ(save("a.jpg", contents), BatchOutcome{.name = "a.jpg"});
        before = {"Trip/a.jpg"};
    }
    EXPECT_EQ(filesUnder(destination.path()), before);
    EXPECT_TRUE(fs::is_empty(incoming->path()));
}

INSTANTIATE_TEST_SUITE_P(Faults, FolderSaverFailure, ::testing::ValuesIn(failures),
                         [](const auto& failure) { return std::string(failure.param.name); });

TEST_F(FolderSaverTest, RefusesNamesAndAlbumsThatCouldLeaveTheFolder) {
    const fs::path root = destination.path() / "inbox";
    fs::create_directory(root);
    for (const std::string& name : std::vector<std::string>{
             "../x.jpg", "a/b.jpg", "..", ".", "", std::string("a\0b.jpg", 7), "/etc/passwd"}) {
        begin({}, root);
        EXPECT_EQ(save(name, "evil").message, "refused unsafe file name") << name;
    }
    for (const std::string& album : std::vector<std::string>{"..", "../elsewhere", "a/b", ""}) {
        begin(SessionHeader{.albumName = album}, root);
        EXPECT_EQ(save("ok.jpg", "evil").message, "refused unsafe album name") << album;
    }
    EXPECT_EQ(filesUnder(destination.path()), std::vector<std::string>{});
}

// What the sender may skip: only a byte-identical file of exactly that name
// in the session's own folder, never one reached through an unsafe name.
TEST_F(FolderSaverTest, HoldsOnlyAnIdenticalFileOfTheSameNameWhereTheSessionSaves) {
    writeFile(destination.path() / "a.jpg", "same");
    writeFile(destination.path() / "b.jpg", "mine");
    fs::create_directory(destination.path() / "Trip");
    writeFile(destination.path() / "Trip" / "c.jpg", "trip");
    begin();
    EXPECT_TRUE(saver->holds(headerFor("a.jpg", "same")));
    EXPECT_FALSE(saver->holds(headerFor("b.jpg", "your"))) << "same size, other bytes";
    EXPECT_FALSE(saver->holds(headerFor("c.jpg", "trip"))) << "in another album";
    EXPECT_FALSE(saver->holds(headerFor("Trip/c.jpg", "trip"))) << "through an unsafe name";
    begin(SessionHeader{.albumName = "Trip"});
    EXPECT_TRUE(saver->holds(headerFor("c.jpg", "trip")));
    EXPECT_FALSE(saver->holds(headerFor("a.jpg", "same"))) << "outside the album";
}

// Files handed over back to back mostly wait, and are saved in groups, more
// than fit in one; a flush saves what is still waiting before the outcomes
// end, each reported in the order it came. A file handed over after the flush
// (the reader lost a race with the end of the session), or to a saver dropped
// without one, is still saved, though nobody hears about it.
TEST_F(FolderSaverTest, AFastRunOfFilesIsSavedAndReportedInOrderAndNothingHandedOverIsLost) {
    begin(SessionHeader{.albumName = "Album"});
    const int files = static_cast<int>(FolderSaver::maxGroupFiles) + 60;
    const auto nameOf = [](int i) {
        return i == 30 ? std::string("../escape.jpg") : "IMG_" + std::to_string(i % 20) + ".jpg";
    };
    for (int i = 0; i < files; ++i) {
        saver->enqueue(received("photo " + std::to_string(i)), FileHeader{.name = nameOf(i)});
    }
    saver->flushAndDrain();
    for (int i = 0; i < files; ++i) {
        EXPECT_EQ(saver->outcomes().next(),
                  (i == 30 ? BatchOutcome{nameOf(i), Ack::Status::error, "refused unsafe file name"}
                           : BatchOutcome{.name = nameOf(i)}));
    }
    EXPECT_EQ(saver->outcomes().next(), std::nullopt);
    saver->enqueue(received("late"), FileHeader{.name = "late.jpg"});
    EXPECT_EQ(saver->outcomes().next(), std::nullopt);
    begin().enqueue(received("kept"), FileHeader{.name = "kept.jpg"});
    saver.reset();
    // Reported means saved: each name holds the bytes of the file that took it.
    const fs::path album = destination.path() / "Album";
    EXPECT_EQ(readText(album / "IMG_7.jpg"), "photo 7");
    EXPECT_EQ(readText(album / "IMG_7 (1).jpg"), "photo 27");
    EXPECT_EQ(readText(album / "late.jpg"), "late");
    EXPECT_EQ(filesUnder(album).size(), static_cast<std::size_t>(files)); // the escape is not
    EXPECT_EQ(readText(destination.path() / "kept.jpg"), "kept");
    EXPECT_TRUE(fs::is_empty(incoming->path()));
}

} // namespace
} // namespace kestrelvane
