#pragma once

#include "support/Eventually.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace kestrelvane::testing {

/// What runUnprivileged() returns when it could not make such a child.
inline constexpr int noUnprivilegedChild = 77;

/// Runs `body` in a forked child as an ordinary user, to whom permissions and
/// limits apply (root's child becomes nobody first); with `withoutThreads`
/// the child is at its process limit and can start no thread. The body's
/// assertions are reported as in the test itself. Returns 0 when the body
/// passed, 1 when it failed, or noUnprivilegedChild.
inline int runUnprivileged(const std::function<void()>& body, bool withoutThreads = false) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child < 0) {
        return noUnprivilegedChild;
    }
    if (child == 0) {
        const rlimit none{0, 0};
        if ((withoutThreads && ::setrlimit(RLIMIT_NPROC, &none) != 0) ||
            (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))) {
            std::_Exit(noUnprivilegedChild);
        }
        if (withoutThreads) {
            try {
                std::thread([] {}).join();
                std::_Exit(noUnprivilegedChild); // threads can still be started here
            } catch (const std::system_error&) {
            }
        }
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "thrown: " << error.what();
        }
        std::fflush(stdout);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    if (!eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; },
                    std::chrono::minutes(2))) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        ADD_FAILURE() << "the child process hung";
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace kestrelvane::testing
