#pragma once

#include "support/Eventually.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kestrelvane::testing {

/// A call started on a thread of its own, and whether that thread was seen
/// parked in one of the given system calls before the deadline.
template <class Result> struct BlockedCall {
    std::future<Result> result;
    bool blocked = false;
};

/// Runs `call` on a thread of its own and returns once the thread is parked
/// in one of `calls` (SYS_ numbers; or the deadline of eventually() has
/// passed), so that a test wakes a call that really waits rather than one
/// that has not begun yet.
template <class Call>
auto callUntilBlockedIn(const std::vector<long>& calls, Call call)
    -> BlockedCall<decltype(call())> {
    const auto tid = std::make_shared<std::atomic<pid_t>>(0);
    BlockedCall<decltype(call())> started;
    started.result = std::async(std::launch::async, [tid, call = std::move(call)]() mutable {
        *tid = static_cast<pid_t>(::syscall(SYS_gettid));
        return call();
    });
    started.blocked = eventually([&] {
        std::ifstream syscall("/proc/self/task/" + std::to_string(tid->load()) + "/syscall");
        long number = -1;
        return *tid != 0 && syscall >> number &&
               std::find(calls.begin(), calls.end(), number) != calls.end();
    });
    return started;
}

} // namespace kestrelvane::testing
