#include "support/ChildProcess.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace kestrelvane::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& extra,
                           int stdinFd, int stdoutFd) {
    int pipeFds[2] = {-1, -1};
    if (stdoutFd < 0 && ::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    }
    posix_spawn_file_actions_adddup2(&actions, stdoutFd >= 0 ? stdoutFd : pipeFds[1],
                                     STDOUT_FILENO);

    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const bool replaced = std::any_of(extra.begin(), extra.end(), [&](const auto& pair) {
            return text.starts_with(pair.first + "=");
        });
        if (!replaced) {
            environment.push_back(text);
        }
    }
    for (const auto& [name, value] : extra) {
        environment.push_back(name + "=" + value);
    }
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    const int status = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (pipeFds[1] >= 0) {
        ::close(pipeFds[1]);
    }
    if (status != 0) {
        if (pipeFds[0] >= 0) {
            ::close(pipeFds[0]);
        }
        throw std::system_error(status, std::generic_category(), "posix_spawnp " + argv[0]);
    }
    output_ = pipeFds[0];
}

ChildProcess::~ChildProcess() {
    if (!status_) {
        terminate();
    }
    if (!status_) {
        ::kill(pid_, SIGKILL);
        waitFor();
    }
    if (output_ >= 0) {
        ::close(output_);
    }
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (const auto newline = pending_.find('\n'); newline != std::string::npos) {
            std::string line = pending_.substr(0, newline);
            pending_.erase(0, newline + 1);
            return line;
        }
        if (output_ < 0) {
            return std::nullopt;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        pollfd watched{output_, POLLIN, 0};
        if (::poll(&watched, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t n = ::read(output_, buffer, sizeof buffer);
        if (n <= 0) {
            return std::nullopt;
        }
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!status_) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (done < 0 && errno != EINTR) {
            status_ = -1;
        } else if (std::chrono::steady_clock::now() > end) {
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    return status_;
}

std::optional<int> ChildProcess::terminate(std::chrono::milliseconds deadline) {
    if (!status_) {
        ::kill(pid_, SIGTERM);
    }
    return waitFor(deadline);
}

std::optional<std::string> ChildProcess::locate(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return ::access(program.c_str(), X_OK) == 0 ? std::optional(program) : std::nullopt;
    }
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    dirs += ":/usr/sbin:/sbin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        const auto colon = dirs.find(':', start);
        const std::string dir = dirs.substr(start, colon - start);
        if (!dir.empty() && ::access((dir + "/" + program).c_str(), X_OK) == 0) {
            return dir + "/" + program;
        }
        if (colon == std::string::npos) {
            break;
        }
        start = colon + 1;
    }
    return std::nullopt;
}

} // namespace kestrelvane::testing
