// Real processes dying on cue: the sender, the receiver and usbmuxd killed
// with SIGKILL mid-batch, usbmuxd killed while the sender waits for its
// device list, and the receiver's disk filling up. The tools run as a user
// runs them; every wait has a deadline.
#include "support/CliProcess.h"
#include "support/EngineSession.h"
#include "support/Eventually.h"
#include "support/SimulatorProcess.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <functional>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Files = std::vector<std::string>;

/// `kestrelvane send --json` of `files` to `to`, `onEvent` seeing each event as
/// it comes; its exit status (-1 when it hung) and its last event.
std::pair<int, nlohmann::json>
send(const std::vector<fs::path>& files, const std::string& to,
     const ChildProcess::Environment& environment = {},
     const std::function<void(const nlohmann::json&, ChildProcess&)>& onEvent = {}) {
    std::vector<std::string> arguments = {"send", "--json", "--log", "stderr", "--to", to};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const auto sender = kestrelvane(arguments, environment, Streams::stdoutOnly);
    const Finished sent = finish(*sender, std::chrono::seconds(60), [&](const std::string& line) {
        if (onEvent) {
            onEvent(nlohmann::json::parse(line), *sender);
        }
    });
    return {sent.status, sent.lines.empty() ? nullptr : nlohmann::json::parse(sent.lines.back())};
}

/// Which process dies: "sender", "receiver" or "usbmuxd".
class Killed : public ::testing::TestWithParam<std::string> {};

TEST_P(Killed, MidBatchLosesNothingAcknowledgedAndAResendCompletesTheBatchOnce) {
    const std::string victim = GetParam();
    const bool usb = victim == "usbmuxd";
    TemporaryFolder source, destination, temporary;
    const auto files = writeBatch(source.path(), 16, usb ? 2 << 20 : 1 << 20);
    const ChildProcess::Environment tmpdir = {{"TMPDIR", temporary.path().string()}};
    std::unique_ptr<ReceiverProcess> receiver;
    std::unique_ptr<SimulatorProcess> usbmuxd;
    // Starts the destination, and says how the sender reaches it.
    const auto start = [&]() -> std::pair<std::string, ChildProcess::Environment> {
        if (usb) {
            usbmuxd = std::make_unique<SimulatorProcess>(
                std::vector<std::string>{"SIM1,0x12a8,folder=" + destination.path().string()},
                std::vector<std::string>{}, tmpdir);
            return {"usb", usbmuxd->environment()};
        }
        receiver = std::make_unique<ReceiverProcess>(
            destination.path(), std::vector<std::string>{"--log", "stderr"}, tmpdir);
        return {receiver->address(), {}};
    };
    auto [to, environment] = start();
    // The victim dies as soon as the sender hears of the first saved file.
    ChildProcess* dying = nullptr;
    const auto [status, summary] =
        send(files, to, environment, [&](const auto& event, ChildProcess& sender) {
            if (!dying && event["event"] == "ack") {
                dying = victim == "sender" ? &sender
                        : usb              ? &usbmuxd->process()
                                           : &receiver->process();
                ::kill(dying->pid(), SIGKILL);
            }
        });
    ASSERT_NE(dying, nullptr);
    EXPECT_EQ(status, victim == "sender" ? 128 + SIGKILL : 1) << "-1: the sender hung";
    auto unsaved = files; // a killed sender leaves no list: the whole batch again
    if (victim != "sender") {
        EXPECT_EQ(dying->waitFor(), 128 + SIGKILL);
        unsaved.clear();
        for (const auto& file : summary["unsaved"]) {
            unsaved.emplace_back(file["path"].get<std::string>());
        }
        ASSERT_FALSE(unsaved.empty()) << "the batch was complete before the kill";
        std::tie(to, environment) = start();
    } else {
        ASSERT_TRUE(receiver->says("session 1 ended")); // before a resend can race it
    }

    const auto [resumed, resumedSummary] = send(unsaved, to, environment);
    EXPECT_EQ(resumed, 0) << resumedSummary.dump();
    // What the sender was told is saved is whole, and now every file, once.
    EXPECT_EQ(filesUnder(destination.path()), filesUnder(source.path())) << "lost or doubled";
    EXPECT_EQ(filesNotAsIn(destination.path(), source.path()), Files{});
    // A receiver starting beside it (a simulator's phone is one) leaves its
    // scratch folder alone, which holds nothing but its lock: what a killed
    // receiver, sender or simulator left is gone.
    if (usb) {
        SimulatorProcess({"SIM2,0x12a8,test"}, {}, tmpdir);
    } else {
        ReceiverProcess(destination.path(), {}, tmpdir);
    }
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(temporary.path()), {}), 2);
    EXPECT_EQ((usb ? usbmuxd->process() : receiver->process()).terminate(), 0);
    EXPECT_TRUE(fs::is_empty(temporary.path())) << "the receiver left its scratch folder";
}

INSTANTIATE_TEST_SUITE_P(Processes, Killed, ::testing::Values("sender", "receiver", "usbmuxd"),
                         [](const auto& victim) { return victim.param; });

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
        std::error_code ignored;
        const fs::directory_iterator fds("/proc/" + std::to_string(sender->pid()) + "/fd", ignored);
        return std::any_of(begin(fds), end(fds), [&](const auto& fd) {
            return fs::read_symlink(fd, ignored).string().starts_with("socket:");
        });
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
    const auto files = writeBatch(source.path(), 3, 1'572'864);
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
    ASSERT_EQ(summary["unsaved"].size(), 1u) << summary.dump();
    EXPECT_EQ(summary["unsaved"][0]["reason"], "No space left on device");
    EXPECT_EQ(receiver.process().waitFor(std::chrono::seconds(120)), 0) << "it did not end cleanly";
    EXPECT_EQ(filesUnder(copy.path()).size(), 2u) << "a partial file was left";
    EXPECT_EQ(filesNotAsIn(copy.path(), source.path()), Files{});
    EXPECT_TRUE(fs::is_empty(temporary.path())) << "a temporary file was left";
}

} // namespace
} // namespace kestrelvane
