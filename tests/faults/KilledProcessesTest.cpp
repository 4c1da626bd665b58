// Real processes dying on cue: the sender, the receiver and usbmuxd killed
// with SIGKILL mid-batch, usbmuxd killed while the sender waits for its
// device list, and the receiver's disk filling up. The tools run as a user
// runs them; every wait has a deadline.
#include "KestrelvaneKit/intake/Checksum.h"
#include "support/CliProcess.h"
#include "support/Eventually.h"
#include "support/ReceiverProcess.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <functional>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;

/// `count` photos and videos of about `size` bytes each, all different.
std::vector<fs::path> makeBatch(const fs::path& folder, int count, std::size_t size) {
    std::vector<fs::path> files;
    for (int i = 0; i < count; ++i) {
        const std::string name = "IMG_" + std::to_string(1000 + i) + (i % 4 == 3 ? ".mov" : ".jpg");
        files.push_back(writeFile(folder / name, pattern(size + i, static_cast<std::uint8_t>(i))));
    }
    return files;
}

/// The names of the entries directly in `folder` (hidden ones too), sorted.
std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// The names in `folder`, each checked to hold the bytes of its namesake in `source`.
std::vector<std::string> wholeCopiesIn(const fs::path& folder, const fs::path& source) {
    const auto names = namesIn(folder);
    for (const auto& name : names) {
        EXPECT_EQ(Checksum::sha256HexOfFile(folder / name),
                  Checksum::sha256HexOfFile(source / name))
            << name;
    }
    return names;
}

/// `kestrelvane send --json` of `files` to `to`, `onEvent` seeing each event as
/// it comes; its exit status (-1 when it hung) and its last event.
std::pair<int, nlohmann::json>
send(const std::vector<fs::path>& files, const std::string& to,
     const ChildProcess::Environment& environment = {},
     const std::function<void(const nlohmann::json&, ChildProcess&)>& onEvent = {}) {
    std::vector<std::string> arguments = {"send", "--json", "--log", "stderr", "--to", to};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const auto sender = kestrelvane(arguments, environment, Streams::stdoutOnly);
    nlohmann::json last;
    while (const auto line = sender->readLine(std::chrono::seconds(60))) {
        last = nlohmann::json::parse(*line);
        if (onEvent) {
            onEvent(last, *sender);
        }
    }
    return {sender->waitFor(std::chrono::seconds(60)).value_or(-1), last};
}

std::vector<fs::path> unsavedIn(const nlohmann::json& summary) {
    std::vector<fs::path> paths;
    for (const auto& file : summary.value("unsaved", nlohmann::json::array())) {
        paths.emplace_back(file.at("path").get<std::string>());
    }
    return paths;
}

enum class Victim { sender, receiver, usbmuxd };

class Killed : public ::testing::TestWithParam<Victim> {};

TEST_P(Killed, MidBatchLosesNothingAcknowledgedAndAResendCompletesTheBatchOnce) {
    const Victim victim = GetParam();
    const bool usb = victim == Victim::usbmuxd;
    TemporaryFolder source, destination, temporary;
    const auto files = makeBatch(source.path(), 16, usb ? 2 << 20 : 1 << 20);
    std::unique_ptr<ReceiverProcess> receiver;
    std::unique_ptr<SimulatorProcess> usbmuxd;
    const auto startDestination = [&] {
        if (usb) {
            usbmuxd = std::make_unique<SimulatorProcess>(
                std::vector<std::string>{"SIM1,0x12a8,folder=" + destination.path().string()});
        } else {
            receiver = std::make_unique<ReceiverProcess>(
                destination.path(), std::vector<std::string>{"--log", "stderr"},
                ChildProcess::Environment{{"TMPDIR", temporary.path().string()}});
        }
    };
    const auto sendTo = [&](const std::vector<fs::path>& batch, const auto& onEvent) {
        return usb ? send(batch, "usb", usbmuxd->environment(), onEvent)
                   : send(batch, receiver->address(), {}, onEvent);
    };
    startDestination();
    // The victim dies as soon as the sender hears of the first saved file.
    ChildProcess* dying = nullptr;
    const auto [status, summary] = sendTo(files, [&](const auto& event, ChildProcess& sender) {
        if (!dying && event["event"] == "ack") {
            dying = victim == Victim::sender     ? &sender
                    : victim == Victim::receiver ? &receiver->process()
                                                 : &usbmuxd->process();
            ::kill(dying->pid(), SIGKILL);
        }
    });
    ASSERT_NE(dying, nullptr);
    EXPECT_EQ(status, victim == Victim::sender ? 128 + SIGKILL : 1) << "-1: the sender hung";
    // What the sender was told is saved is saved; a file cut short is not there.
    wholeCopiesIn(destination.path(), source.path());
    auto unsaved = files; // a killed sender leaves no list: the whole batch again
    if (victim != Victim::sender) {
        EXPECT_EQ(dying->waitFor(), 128 + SIGKILL);
        unsaved = unsavedIn(summary);
        ASSERT_FALSE(unsaved.empty()) << "the batch was complete before the kill";
        startDestination();
    } else {
        ASSERT_TRUE(receiver->says("session 1 ended")); // before a resend can race it
    }

    const auto [resumed, resumedSummary] = sendTo(unsaved, nullptr);
    EXPECT_EQ(resumed, 0) << resumedSummary.dump();
    std::vector<std::string> names;
    for (const auto& file : files) {
        names.push_back(file.filename().string());
    }
    EXPECT_EQ(wholeCopiesIn(destination.path(), source.path()), names) << "a file lost or doubled";
    if (!usb) {
        // The receiver's one scratch folder holds nothing but its lock: what a
        // killed receiver or sender left there is gone.
        const auto scratch = namesIn(temporary.path());
        ASSERT_EQ(scratch.size(), 1u) << ::testing::PrintToString(scratch);
        EXPECT_EQ(namesIn(temporary.path() / scratch[0]), std::vector<std::string>{".lock"});
        EXPECT_EQ(receiver->process().terminate(), 0);
        EXPECT_TRUE(fs::is_empty(temporary.path())) << "the receiver left its scratch folder";
    }
}

INSTANTIATE_TEST_SUITE_P(Processes, Killed,
                         ::testing::Values(Victim::sender, Victim::receiver, Victim::usbmuxd),
                         [](const auto& victim) {
                             return std::string(victim.param == Victim::sender     ? "Sender"
                                                : victim.param == Victim::receiver ? "Receiver"
                                                                                   : "Usbmuxd");
                         });

TEST(KilledUsbmuxd, WhileTheSenderWaitsForItsDeviceListEndsTheSendWithNoConnection) {
    TemporaryFolder phone;
    SimulatorProcess usbmuxd({"SIM1,0x12a8,folder=" + phone.path().string()});
    // Stopped, it still takes connections into its backlog but answers nothing.
    ::kill(usbmuxd.process().pid(), SIGSTOP);
    const auto sender =
        kestrelvane({"send", (fs::path(KV_FIXTURES_DIR) / "media" / "jpeg-original.jpg").string()},
                    usbmuxd.environment());
    // The sender's only socket is its connection to usbmuxd.
    EXPECT_TRUE(eventually([&] {
        std::error_code error;
        const auto fds = fs::path("/proc") / std::to_string(sender->pid()) / "fd";
        for (const auto& fd : fs::directory_iterator(fds, error)) {
            if (fs::read_symlink(fd.path(), error).string().starts_with("socket:")) {
                return true;
            }
        }
        return false;
    })) << "the sender never connected to usbmuxd";
    ::kill(usbmuxd.process().pid(), SIGKILL);
    EXPECT_EQ(finish(*sender, std::chrono::seconds(60)).status, 3);
    EXPECT_TRUE(fs::is_empty(phone.path()));
}

TEST(FullDisk, FilesThatDoNotFitAreAnsweredWithAnErrorAndLeaveNothingBehind) {
    TemporaryFolder source, disk, copy, temporary;
    const auto unshare = ChildProcess::locate("unshare");
    if (!unshare ||
        ChildProcess({*unshare, "-m", "sh", "-c", "mount -t tmpfs tmpfs \"$0\"", disk.path()})
                .waitFor() != 0) {
        GTEST_SKIP() << "this user may not mount a tmpfs in a private mount namespace";
    }
    // Three files of 1.5 MiB on a 4 MiB disk: two fit, the third does not.
    const auto files = makeBatch(source.path(), 3, 1'572'864);
    // The receiver runs in a mount namespace of its own, where its folder ($3)
    // is a small tmpfs; after its one session, all that disk holds is copied out.
    ReceiverProcess receiver(disk.path(), {"--once"}, {{"TMPDIR", temporary.path().string()}},
                             "127.0.0.1",
                             {*unshare, "-m", "sh", "-c",
                              "mount -t tmpfs -o size=4m tmpfs \"$3\" && \"$0\" \"$@\" && cp -a "
                              "\"$3/.\" '" +
                                  copy.path().string() + "'"});
    const auto [status, summary] = send(files, receiver.address());
    EXPECT_EQ(status, 1);
    ASSERT_EQ(unsavedIn(summary).size(), 1u) << summary.dump();
    EXPECT_EQ(summary["unsaved"][0]["reason"], "No space left on device");
    EXPECT_EQ(receiver.finish().status, 0) << "the receiver did not end cleanly";
    EXPECT_EQ(wholeCopiesIn(copy.path(), source.path()).size(), 2u) << "a partial file was left";
    EXPECT_TRUE(fs::is_empty(temporary.path())) << "a temporary file was left";
}

} // namespace
} // namespace kestrelvane
