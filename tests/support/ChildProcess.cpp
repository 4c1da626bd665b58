#include "support/ChildProcess.h"

#include "support/Eventually.h"

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace kestrelvane::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& extra,
                           int stdinFd, int stdoutFd) {
    int pipeFds[2] = {-1, -1};
    if (stdoutFd < 0 && ::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    output_ = pipeFds[0];
    ::fcntl(output_, F_SETFL, O_NONBLOCK); // readLine() waits with a deadline of its own
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    }
    posix_spawn_file_actions_adddup2(&actions, stdoutFd >= 0 ? stdoutFd : pipeFds[1],
                                     STDOUT_FILENO);
    // env(1) adds the variables and runs the program in its place.
    std::vector<std::string> command = {"env"};
    for (const auto& [name, value] : extra) {
        command.push_back(name + "=" + value);
    }
    command.insert(command.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (auto& arg : command) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    const int status = ::posix_spawnp(&pid_, "env", &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (status != 0) {
        ::close(output_);
        throw std::system_error(status, std::generic_category(), "posix_spawnp env");
    }
}

ChildProcess::~ChildProcess() {
    if (!terminate()) {
        ::kill(pid_, SIGKILL);
        waitFor();
    }
    ::close(output_);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds deadline) {
    eventually(
        [&] {
            char buffer[4096];
            ssize_t n = 0;
            while ((n = ::read(output_, buffer, sizeof buffer)) > 0) {
                pending_.append(buffer, static_cast<std::size_t>(n));
            }
            return pending_.find('\n') != std::string::npos || n == 0 ||
                   (errno != EAGAIN && errno != EINTR);
        },
        deadline);
    const auto newline = pending_.find('\n');
    if (newline == std::string::npos) {
        return std::nullopt; // the output ended, or the deadline passed
    }
    std::string line = pending_.substr(0, newline);
    pending_.erase(0, newline + 1);
    return line;
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds deadline) {
    eventually(
        [&] {
            int status = 0;
            const pid_t done = status_ ? 0 : ::waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            } else if (done < 0 && errno != EINTR) {
                status_ = -1;
            }
            return status_.has_value();
        },
        deadline);
    return status_;
}

std::optional<int> ChildProcess::terminate(std::chrono::milliseconds deadline) {
    if (!status_) {
        ::kill(pid_, SIGTERM);
    }
    return waitFor(deadline);
}

std::optional<std::string> ChildProcess::locate(const std::string& program) {
    ChildProcess shell({"sh", "-c", "PATH=\"$PATH:/usr/sbin:/sbin\" command -v \"$0\"", program});
    const auto path = shell.readLine();
    return shell.waitFor() == 0 ? path : std::nullopt;
}

} // namespace kestrelvane::testing
