#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace kestrelvane::testing {

/// A program run the way a user runs it, for tests of real binaries, with
/// `extra` variables in its environment. Its standard output is a pipe read
/// with readLine() unless `stdoutFd` is given; `stdinFd` replaces its standard
/// input. A child still running when the object goes is sent SIGTERM (then
/// SIGKILL) and waited for.
class ChildProcess {
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    /// A program that cannot be found or run ends at once with status 127 or
    /// 126, as env(1) reports it.
    explicit ChildProcess(const std::vector<std::string>& argv, const Environment& extra = {},
                          int stdinFd = -1, int stdoutFd = -1);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const noexcept { return pid_; }
    /// The next line of output without its newline; nothing when the output
    /// ends or `deadline` passes first.
    std::optional<std::string>
    readLine(std::chrono::milliseconds deadline = std::chrono::seconds(30));
    /// The exit status (or 128 + signal); nothing if it is still running at `deadline`.
    std::optional<int> waitFor(std::chrono::milliseconds deadline = std::chrono::seconds(30));
    /// SIGTERM, then the exit status.
    std::optional<int> terminate(std::chrono::milliseconds deadline = std::chrono::seconds(30));

    /// Where `program` is, searching PATH and then the sbin folders; nothing
    /// when it is not installed.
    static std::optional<std::string> locate(const std::string& program);

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::string pending_;
    std::optional<int> status_;
};

} // namespace kestrelvane::testing
