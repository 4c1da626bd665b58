// kestrelvane demo: the whole road of a send on a machine without an iPhone.
//
// A simulated usbmuxd with one virtual iPhone runs as a child process on a
// private socket; its phone runs the receiving engine and saves into a
// folder. The send itself is the real one: usbmuxd client, tunnel, stream,
// sending engine.
#include "CommandLine.h"
#include "Commands.h"
#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "SampleMedia.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrelvane::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* album = "Kestrelvane demo";
constexpr int samplePhotos = 8;
constexpr std::uint64_t sampleVideoBytes = 48ull << 20;
constexpr auto simulatorStartDeadline = std::chrono::seconds(20);
constexpr int simulatorStopDeadlineMs = 5000;

fs::path simulatorProgram() {
    if (const char* chosen = std::getenv("KESTRELVANE_USBMUXD_SIM"); chosen && *chosen) {
        return chosen;
    }
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        const fs::path sibling = self.parent_path() / "kestrelvane-usbmuxd-sim";
        if (::access(sibling.c_str(), X_OK) == 0) {
            return sibling;
        }
    }
    return "kestrelvane-usbmuxd-sim"; // from PATH
}

/// The simulator as a child process, ended (and reaped) when this goes.
class Simulator {
public:
    Simulator(const fs::path& program, const fs::path& socket, const fs::path& phoneFolder) {
        int output[2];
        if (::pipe2(output, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        output_.reset(output[0]);
        const FileDescriptor childOutput(output[1]);
        const std::string phone = "DEMO-IPHONE-0001,0x12a8,folder=" + phoneFolder.string();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(childOutput.get(), STDOUT_FILENO);
            const char* const argv[] = {program.c_str(), "--socket",    socket.c_str(),
                                        "--phone",       phone.c_str(), nullptr};
            ::execvp(argv[0], const_cast<char* const*>(argv));
            std::fprintf(stderr, "cannot run %s\n", program.c_str());
            ::_exit(127);
        }
        if (pid_ < 0) {
            throw std::runtime_error("fork failed");
        }
    }
    ~Simulator() {
        // It ends every connection on SIGTERM; one that hangs is killed.
        ::kill(pid_, SIGTERM);
        const FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
        pollfd exited{.fd = process.get(), .events = POLLIN, .revents = 0};
        if (::poll(&exited, 1, simulatorStopDeadlineMs) != 1) {
            ::kill(pid_, SIGKILL);
        }
        ::waitpid(pid_, nullptr, 0);
    }
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// Waits for the simulator's "listening on" line; false when it ended or
    /// said nothing within the deadline.
    bool waitUntilListening(std::chrono::seconds deadline) {
        const auto until = std::chrono::steady_clock::now() + deadline;
        std::string text;
        while (text.find('\n') == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            pollfd wait{.fd = output_.get(), .events = POLLIN, .revents = 0};
            if (left.count() <= 0 || ::poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
            char buffer[256];
            const ssize_t got = ::read(output_.get(), buffer, sizeof buffer);
            if (got <= 0) {
                return false;
            }
            text.append(buffer, static_cast<std::size_t>(got));
        }
        return text.rfind("listening on", 0) == 0;
    }

private:
    pid_t pid_ = -1;
    FileDescriptor output_;
};

} // namespace

const Command demoCommand{
    .name = "demo",
    .about = "send sample files to a simulated iPhone over the real USB path",
    .summary = {"Shows the whole system on this machine, no iPhone needed: starts "
                "kestrelvane-usbmuxd-sim with one virtual iPhone on a private socket, makes "
                "sample photos (with capture dates) and a video in a temporary folder, sends them "
                "over the real USB path (usbmuxd client, tunnel, stream), checks every received "
                "file against its original byte for byte, and says where they are.",
                "The simulator is looked for in $KESTRELVANE_USBMUXD_SIM, next to this program, "
                "then on PATH."},
    .exitStatuses = {{exitOk, "every file arrived byte for byte"},
                     {exitFailure, "some did not (or the send failed, or the temporary folder or "
                                   "samples could not be made)"},
                     {exitUsage, "usage error"},
                     {exitNoConnection, "the simulator did not start"}},
    .run = runDemo,
};

int runDemo(const std::vector<std::string>& arguments) {
    const CommandLine line(demoCommand, arguments);
    if (line.finished) {
        return *line.finished;
    }

    std::string pattern = (fs::temp_directory_path() / "kestrelvane-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("kestrelvane demo: cannot make a temporary folder");
        return exitFailure;
    }
    const fs::path work = pattern;
    const fs::path samples = work / "samples";
    const fs::path phone = work / "iPhone";
    fs::create_directories(samples);
    fs::create_directories(phone);

    std::vector<fs::path> originals;
    try {
        originals = SampleMedia::create(samples, samplePhotos, sampleVideoBytes);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrelvane demo: %s\n", error.what());
        return exitFailure;
    }
    std::printf("Made %d sample photos and a %llu MB video in %s\n", samplePhotos,
                static_cast<unsigned long long>(sampleVideoBytes >> 20), samples.c_str());

    const fs::path socket = work / "usbmuxd.socket";
    const fs::path program = simulatorProgram();
    // The virtual iPhone keeps what it would resume in the demo's folder,
    // not in the user's cache.
    ::setenv("XDG_CACHE_HOME", (work / "cache").c_str(), 1);
    Simulator simulator(program, socket, phone);
    if (!simulator.waitUntilListening(simulatorStartDeadline)) {
        std::fprintf(stderr, "kestrelvane demo: the usbmuxd simulator (%s) did not start\n",
                     program.c_str());
        return exitNoConnection;
    }
    std::printf("Started a simulated usbmuxd with one virtual iPhone at %s\n\n", socket.c_str());
    std::fflush(stdout);

    // The send reaches the simulator exactly as it would reach the real
    // daemon: through the socket address usbmuxd clients read.
    ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + socket.string()).c_str(), 1);
    // --log, if given, has been applied already: the send logs where the demo does.
    const int sendStatus = runSend({"--album", album, "--to", "usb", samples.string()});

    const fs::path received = phone / album;
    int identical = 0;
    for (const auto& original : originals) {
        const fs::path name = original.filename();
        const fs::path copy = received / name;
        // A copy that cannot be read (a folder in its place, say) is named with the reason.
        try {
            if (fs::exists(copy) &&
                Checksum::sha256HexOfFile(original) == Checksum::sha256HexOfFile(copy)) {
                ++identical;
            } else {
                std::printf("  %s did not arrive intact\n", name.c_str());
            }
        } catch (const std::exception& error) {
            std::printf("  %s did not arrive intact (%s)\n", name.c_str(), error.what());
        }
    }
    std::printf("\nThe virtual iPhone saved the files in %s\n", received.c_str());
    const auto total = static_cast<int>(originals.size());
    const bool ok = sendStatus == exitOk && identical == total;
    std::printf("demo: %s: %d of %d files arrived byte for byte over the simulated USB path\n",
                ok ? "PASSED" : "FAILED", identical, total);
    return ok ? exitOk : exitFailure;
}

} // namespace kestrelvane::cli
