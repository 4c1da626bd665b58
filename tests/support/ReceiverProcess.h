#pragma once

#include "support/CliProcess.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvane::testing {

/// `kestrelvane receive` saving into `folder`, on a port the system picks on
/// `bind`, with `extra` arguments and `environment`; run by `wrapper` (a
/// program and its arguments, before the tool's path) when one is given.
/// Ready once constructed: it has said where it listens (throws when it does
/// not). Its standard output is read on a thread of its own, so that it never
/// blocks on a full pipe; it is stopped with SIGTERM when the object goes.
class ReceiverProcess {
public:
    explicit ReceiverProcess(const std::filesystem::path& folder,
                             const std::vector<std::string>& extra = {},
                             const ChildProcess::Environment& environment = {},
                             const std::string& bind = "127.0.0.1",
                             const std::vector<std::string>& wrapper = {});
    ~ReceiverProcess();
    ReceiverProcess(const ReceiverProcess&) = delete;
    ReceiverProcess& operator=(const ReceiverProcess&) = delete;

    int port() const { return port_; }
    /// Where `send --to` finds it: HOST:PORT, or [HOST]:PORT for IPv6.
    std::string address() const;
    ChildProcess& process() { return *process_; }

    /// Whether a line it printed after the first one contains `text`, waiting
    /// up to `deadline` for one to come.
    bool says(const std::string& text,
              std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;
    /// Waits for it to end by itself (--once) and gives its status and every
    /// line after the first; one still running at `deadline` is stopped.
    Finished finish(std::chrono::milliseconds deadline = std::chrono::seconds(120));

private:
    void stop();

    std::string bind_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> process_;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::thread reader_;
};

} // namespace kestrelvane::testing
