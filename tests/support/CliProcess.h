#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// Which of a program's output streams the test reads.
enum class Streams { joined, stdoutOnly, stderrOnly };

/// The key and paired list of the device the test program's `kestrelvane`
/// runs as (XDG_DATA_HOME/kestrelvane), so that no test touches the user's own.
const std::filesystem::path& testDeviceHome();

/// The `kestrelvane` tool the build made, in UTC, as the test device (unless
/// `environment` names another XDG_DATA_HOME), its chosen output on the
/// pipe that ChildProcess::readLine reads.
std::unique_ptr<ChildProcess> kestrelvane(const std::vector<std::string>& arguments,
                                          ChildProcess::Environment environment = {},
                                          Streams streams = Streams::joined, int stdinFd = -1);

/// What a program printed, line by line and whole, and its exit status.
struct Finished {
    int status = -1;
    std::vector<std::string> lines;
    std::string text; ///< the lines, each ending in a newline
    bool mentions(const std::string& part) const { return text.find(part) != text.npos; }
};

/// Reads everything `process` prints, each line also to `onLine` as it comes,
/// and waits for it to end.
Finished finish(ChildProcess& process,
                std::chrono::milliseconds deadline = std::chrono::seconds(120),
                const std::function<void(const std::string&)>& onLine = {});
/// Runs `kestrelvane` to its end.
Finished run(const std::vector<std::string>& arguments,
             const ChildProcess::Environment& environment = {}, Streams streams = Streams::joined);

/// `kestrelvane receive` saving into `folder`, on a port the system picks on
/// `bind`, with `extra` arguments and `environment`; run by `wrapper` (a
/// program and its arguments, before the tool's path) when one is given.
/// Ready once constructed: it has said where it listens (throws when it does
/// not). Its standard output goes to a file, so that it never blocks on a
/// full pipe; it is stopped with SIGTERM when the object goes.
///
/// It is a device of its own (its own XDG_DATA_HOME), paired with the test
/// device under address(), so that `send --to address()` goes over TLS as a
/// paired sender's does; with `acceptAnyone` it also serves senders in clear
/// (raw peers speaking the protocol) and unpaired ones.
class ReceiverProcess {
public:
    explicit ReceiverProcess(const std::filesystem::path& folder,
                             const std::vector<std::string>& extra = {},
                             const ChildProcess::Environment& environment = {},
                             const std::string& bind = "127.0.0.1",
                             std::vector<std::string> wrapper = {}, bool acceptAnyone = true);

    ~ReceiverProcess();
    ReceiverProcess(const ReceiverProcess&) = delete;
    ReceiverProcess& operator=(const ReceiverProcess&) = delete;

    int port() const { return port_; }
    /// Where `send --to` finds it: HOST:PORT, or [HOST]:PORT for IPv6.
    std::string address() const;
    ChildProcess& process() { return *process_; }
    /// Its XDG_DATA_HOME (a folder of its own unless `environment` names
    /// one): its key and paired list are in kestrelvane/ there; its
    /// XDG_CACHE_HOME is cache/ in it.
    const std::filesystem::path& home() const { return dataHome_; }
    /// Writes `line` and a newline to its standard input (a pipe).
    void type(const std::string& line) const;
    /// The first thing it printed that matches `pattern`'s first group,
    /// waiting up to 30 s for it; empty when nothing did.
    std::string found(const std::string& pattern) const;
    /// Whether it has printed `text`, waiting up to `deadline` for it.
    bool says(const std::string& text,
              std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;

private:
    TemporaryFolder output_;
    TemporaryFolder home_;
    std::filesystem::path dataHome_; // home_, unless the environment names another
    int input_ = -1;                 // the write end of its standard input
    std::string bind_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

} // namespace kestrelvane::testing
