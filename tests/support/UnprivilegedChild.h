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

/// The exit status of a child that could not be made as its test needs.
inline constexpr int childNotMade = 77;

/// Runs `body` in a forked child and waits for it, with a deadline. The
/// body's assertions are reported as in the test itself; the test is skipped
/// when the child could not be made (it exits with childNotMade).
inline void runInChild(const std::function<void()>& body) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "thrown: " << error.what();
        }
        std::fflush(stdout);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0); // no exit handlers, no leak check
    }
    int status = 0;
    if (child > 0 && !eventually([&] { return ::waitpid(child, &status, WNOHANG) == child; },
                                 std::chrono::minutes(2))) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        ADD_FAILURE() << "the child process hung";
    }
    if (child < 0 || (WIFEXITED(status) && WEXITSTATUS(status) == childNotMade)) {
        GTEST_SKIP() << "no child process could be made as this test needs";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed: " << status;
}

/// In a child of runInChild(): becomes an ordinary user, to whom permissions
/// and limits apply (root becomes nobody); `withoutThreads` also puts it at
/// its process limit, so that it can start no thread.
inline void dropToNobody(bool withoutThreads = false) {
    const rlimit none{0, 0};
    if ((withoutThreads && ::setrlimit(RLIMIT_NPROC, &none) != 0) ||
        (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))) {
        std::_Exit(childNotMade);
    }
    if (withoutThreads) {
        try {
            std::thread([] {}).join();
            std::_Exit(childNotMade); // threads can still be started here
        } catch (const std::system_error&) {
        }
    }
}

} // namespace kestrelvane::testing
