// Real processes dying on cue: the receiver killed with SIGKILL mid-batch and
// restarted, usbmuxd killed under a sender, and the receiver's disk filling
// up. The tools run as a user runs them; every wait has a deadline.
#include "FaultySession.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <regex>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::eventually;
using testing::filesUnder;
using testing::sameContents;
using testing::TemporaryFolder;

/// Photos and videos of a few MiB each, random bytes.
std::vector<fs::path> makeBatch(const fs::path& folder, int count, std::size_t size) {
    std::mt19937 random(7);
    std::vector<fs::path> files;
    for (int i = 0; i < count; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "IMG_%04d.%s", i, i % 4 == 3 ? "mov" : "jpg");
        std::string bytes(size + static_cast<std::size_t>(i), '\0');
        for (std::size_t at = 0; at < bytes.size(); at += 4) {
            const auto word = static_cast<std::uint32_t>(random());
            std::memcpy(bytes.data() + at, &word, std::min<std::size_t>(4, bytes.size() - at));
        }
        files.push_back(folder / name);
        std::ofstream(files.back(), std::ios::binary) << bytes;
    }
    return files;
}

std::vector<std::string> namesOf(const std::vector<fs::path>& files) {
    std::vector<std::string> names;
    for (const auto& file : files) {
        names.push_back(file.filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// `kestrelvane send --json` to `to`; its summary, once it has ended.
struct SendOutcome {
    std::optional<int> status;
    nlohmann::json summary;
    std::vector<fs::path> unsaved() const {
        std::vector<fs::path> paths;
        for (const auto& file : summary.value("unsaved", nlohmann::json::array())) {
            paths.emplace_back(file.at("path").get<std::string>());
        }
        return paths;
    }
};

SendOutcome send(const std::vector<fs::path>& files, const std::string& to,
                 ChildProcess::Environment environment = {},
                 const std::function<void(const nlohmann::json&)>& onEvent = {},
                 const std::function<void(pid_t)>& onStarted = {}) {
    std::vector<std::string> argv = {KV_CLI, "send", "--json", "--log", "stderr", "--to", to};
    for (const auto& file : files) {
        argv.push_back(file.string());
    }
    ChildProcess process(argv, environment);
    if (onStarted) {
        onStarted(process.pid());
    }
    SendOutcome outcome;
    while (auto line = process.readLine(std::chrono::seconds(60))) {
        const auto event = nlohmann::json::parse(*line, nullptr, false);
        if (event.is_discarded()) {
            continue;
        }
        if (onEvent) {
            onEvent(event);
        }
        if (event.value("event", "") == "summary") {
            outcome.summary = event;
        }
    }
    outcome.status = process.waitFor(std::chrono::seconds(60));
    return outcome;
}

/// `kestrelvane receive` on a free loopback port, with its own TMPDIR.
class Receiver {
public:
    Receiver(const fs::path& folder, const fs::path& temporary) {
        process_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{KV_CLI, "receive", "--dir", folder.string(), "--port", "0",
                                     "--bind", "127.0.0.1", "--log", "stderr"},
            ChildProcess::Environment{{"TMPDIR", temporary.string()}});
        const auto first = process_->readLine();
        std::smatch match;
        if (first && std::regex_search(*first, match, std::regex("on port ([0-9]+)$"))) {
            address_ = "127.0.0.1:" + match[1].str();
        } else {
            ADD_FAILURE() << "the receiver did not say where it listens: " << first.value_or("");
        }
    }
    const std::string& address() const { return address_; }
    ChildProcess& process() { return *process_; }

private:
    std::unique_ptr<ChildProcess> process_;
    std::string address_;
};

/// The names of the entries directly in `folder`.
std::vector<std::string> entriesOf(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

TEST(KilledReceiver, RestartedAndResumedEndsWithEveryFileOnceAndNoStaleTemporaryFile) {
    TemporaryFolder source, destination, temporary;
    const auto files = makeBatch(source.path(), 16, 1 << 20);

    std::optional<SendOutcome> broken;
    {
        Receiver receiver(destination.path(), temporary.path());
        bool killed = false;
        // The receiver dies as soon as the sender hears of the first saved file.
        broken = send(files, receiver.address(), {}, [&](const nlohmann::json& event) {
            if (!killed && event.value("event", "") == "ack") {
                ::kill(receiver.process().pid(), SIGKILL);
                killed = true;
            }
        });
        EXPECT_EQ(receiver.process().waitFor(), 128 + SIGKILL);
    }
    ASSERT_TRUE(broken->status) << "the sender hung after the receiver died";
    const auto unsaved = broken->unsaved();
    ASSERT_FALSE(unsaved.empty()) << "the batch was complete before the kill";
    EXPECT_EQ(broken->status, 1);
    // What the sender was told is saved is saved; a file cut short is not there.
    for (const auto& name : filesUnder(destination.path())) {
        EXPECT_TRUE(sameContents(destination.path() / name, source.path() / name)) << name;
    }

    Receiver restarted(destination.path(), temporary.path());
    // Only the new receiver's own scratch folder is left, and it is empty.
    const auto scratch = entriesOf(temporary.path());
    ASSERT_EQ(scratch.size(), 1u) << ::testing::PrintToString(scratch);
    EXPECT_EQ(entriesOf(temporary.path() / scratch[0]), std::vector<std::string>{".lock"});
    {
        // A second receiver beside it leaves the running one's folder alone.
        Receiver beside(destination.path(), temporary.path());
        EXPECT_EQ(entriesOf(temporary.path()).size(), 2u);
        EXPECT_EQ(beside.process().terminate(), 0);
    }
    EXPECT_EQ(entriesOf(temporary.path()), scratch);

    const auto resumed = send(unsaved, restarted.address());
    EXPECT_EQ(resumed.status, 0) << resumed.summary.dump();
    EXPECT_EQ(filesUnder(destination.path()), namesOf(files)) << "a file lost or doubled";
    for (const auto& file : files) {
        EXPECT_TRUE(sameContents(destination.path() / file.filename(), file)) << file;
    }
    EXPECT_EQ(restarted.process().terminate(), 0);
    EXPECT_TRUE(fs::is_empty(temporary.path())) << "the receiver left its scratch folder";
}

/// The usbmuxd simulator with one phone saving into `phone`.
std::unique_ptr<ChildProcess> simulator(const fs::path& socket, const fs::path& phone) {
    auto process = std::make_unique<ChildProcess>(
        std::vector<std::string>{KV_USBMUXD_SIM, "--socket", socket.string(), "--phone",
                                 "SIM0001,0x12a8,folder=" + phone.string()});
    const auto first = process->readLine();
    EXPECT_TRUE(first && first->rfind("listening on", 0) == 0) << first.value_or("(nothing)");
    return process;
}

TEST(KilledUsbmuxd, DuringASendEndsTheSendWithAClearErrorAndListsWhatWasNotSaved) {
    TemporaryFolder source, phone, sockets;
    const auto files = makeBatch(source.path(), 16, 2 << 20);
    const fs::path socket = sockets.path() / "usbmuxd";
    auto usbmuxd = simulator(socket, phone.path());
    bool killed = false;
    const auto outcome = send(files, "usb", {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket.string()}},
                              [&](const nlohmann::json& event) {
                                  if (!killed && event.value("event", "") == "ack") {
                                      ::kill(usbmuxd->pid(), SIGKILL);
                                      killed = true;
                                  }
                              });
    ASSERT_TRUE(outcome.status) << "the sender hung when usbmuxd died";
    EXPECT_EQ(outcome.status, 1);
    EXPECT_FALSE(outcome.unsaved().empty());
    for (const auto& name : filesUnder(phone.path())) {
        EXPECT_TRUE(sameContents(phone.path() / name, source.path() / name)) << name;
    }
}

TEST(KilledUsbmuxd, DuringDiscoveryEndsTheSendWithNoConnection) {
    TemporaryFolder source, phone, sockets;
    const auto files = makeBatch(source.path(), 1, 1000);
    const fs::path socket = sockets.path() / "usbmuxd";
    auto usbmuxd = simulator(socket, phone.path());
    // Stopped, it still takes connections into its backlog but answers nothing;
    // it dies while the sender waits for the list of devices.
    ::kill(usbmuxd->pid(), SIGSTOP);
    std::atomic<pid_t> senderPid{0};
    std::optional<SendOutcome> outcome;
    std::thread sender([&] {
        outcome = send(files, "usb", {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + socket.string()}}, {},
                       [&](pid_t pid) { senderPid = pid; });
    });
    // The sender's only socket is its connection to usbmuxd.
    const bool waiting = eventually(
        [&] {
            std::error_code error;
            const pid_t pid = senderPid;
            if (pid == 0) {
                return false;
            }
            for (const auto& fd :
                 fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
                if (fs::read_symlink(fd.path(), error).string().rfind("socket:", 0) == 0) {
                    return true;
                }
            }
            return false;
        },
        std::chrono::seconds(20));
    ::kill(usbmuxd->pid(), SIGKILL);
    sender.join();
    EXPECT_TRUE(waiting) << "the sender never connected to usbmuxd";
    ASSERT_TRUE(outcome && outcome->status) << "the sender hung when usbmuxd died";
    EXPECT_EQ(outcome->status, 3);
    EXPECT_TRUE(filesUnder(phone.path()).empty());
}

/// Whether this process may make a private mount namespace and mount in it.
std::optional<std::string> cannotMountPrivately() {
    const auto unshare = ChildProcess::locate("unshare");
    if (!unshare) {
        return "unshare is not installed";
    }
    TemporaryFolder probe;
    ChildProcess process({*unshare, "-m", "sh", "-c",
                          "mount -t tmpfs -o size=1m tmpfs '" + probe.path().string() + "'"});
    if (process.waitFor() != 0) {
        return "this user may not mount a tmpfs in a private mount namespace";
    }
    return std::nullopt;
}

TEST(FullDisk, FilesThatDoNotFitAreAnsweredWithAnErrorAndLeaveNothingBehind) {
    if (const auto reason = cannotMountPrivately()) {
        GTEST_SKIP() << *reason;
    }
    TemporaryFolder source, mountPoint, temporary;
    // Three files of 1.5 MiB on a 4 MiB disk: two fit, the third does not.
    const auto files = makeBatch(source.path(), 3, 1'572'864);
    const std::string dir = mountPoint.path().string();
    // The receiver runs in its own mount namespace, where `dir` is a small
    // tmpfs; it ends after one session, then the folder is listed from inside.
    ChildProcess receiver(
        {*ChildProcess::locate("unshare"), "-m", "sh", "-c",
         "mount -t tmpfs -o size=4m tmpfs \"$0\" && \"$1\" receive --dir \"$0\" --port 0 "
         "--bind 127.0.0.1 --once --log stderr && cd \"$0\" && ls -A1 | sed 's/^/entry /' && "
         "sha256sum -- * && echo end",
         dir, KV_CLI},
        {{"TMPDIR", temporary.path().string()}});
    const auto first = receiver.readLine();
    std::smatch match;
    ASSERT_TRUE(first && std::regex_search(*first, match, std::regex("on port ([0-9]+)$")))
        << first.value_or("(nothing)");
    const auto outcome = send(files, "127.0.0.1:" + match[1].str());
    ASSERT_TRUE(outcome.status);
    EXPECT_EQ(outcome.status, 1);
    ASSERT_EQ(outcome.unsaved().size(), 1u) << outcome.summary.dump();
    EXPECT_EQ(outcome.summary["unsaved"][0]["reason"], "No space left on device");

    // From inside: every entry of the folder (hidden ones too) and each file's SHA-256.
    std::vector<std::string> entries;
    std::map<std::string, std::string> sums;
    bool ended = false;
    const std::regex entry("^entry (.+)$");
    const std::regex sum("^([0-9a-f]{64})  (.+)$");
    while (auto line = receiver.readLine()) {
        std::smatch part;
        if (*line == "end") {
            ended = true;
        } else if (std::regex_match(*line, part, entry)) {
            entries.push_back(part[1]);
        } else if (std::regex_match(*line, part, sum)) {
            sums[part[2]] = part[1];
        }
    }
    EXPECT_EQ(entries.size(), 2u) << "a partial file was left: "
                                  << ::testing::PrintToString(entries);
    for (const auto& [name, hash] : sums) {
        EXPECT_EQ(hash, Checksum::sha256HexOfFile(source.path() / name)) << name;
    }
    EXPECT_TRUE(ended) << "the receiver did not end cleanly";
    EXPECT_EQ(receiver.waitFor(), 0);
    EXPECT_TRUE(fs::is_empty(temporary.path())) << "a temporary file was left";
}

} // namespace
} // namespace kestrelvane
