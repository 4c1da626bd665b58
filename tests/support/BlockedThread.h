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

/// The calling thread's id, as /proc/self/task names it.
inline pid_t currentThreadID() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

/// Whether thread `tid` of this process is parked in one of the system calls
/// `calls` (SYS_ numbers), so that a test wakes a call that really waits
/// rather than one that has not begun yet.
inline bool isBlockedIn(pid_t tid, const std::vector<long>& calls) {
    std::ifstream syscall("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long number = -1;
    return static_cast<bool>(syscall >> number) &&
           std::find(calls.begin(), calls.end(), number) != calls.end();
}

/// A call started on a thread of its own, and whether that thread was seen
/// parked in one of the given system calls before the deadline.
template <class Result> struct BlockedCall {
    std::future<Result> result;
    bool blocked = false;
};

/// Runs `call` on a thread of its own and returns once the thread is parked
/// in one of `calls` (or the deadline of eventually() has passed).
template <class Call>
auto callUntilBlockedIn(const std::vector<long>& calls, Call call)
    -> BlockedCall<decltype(call())> {
    const auto tid = std::make_shared<std::atomic<pid_t>>(0);
    BlockedCall<decltype(call())> started;
    started.result = std::async(std::launch::async, [tid, call = std::move(call)]() mutable {
        *tid = currentThreadID();
        return call();
    });
    started.blocked = eventually([&] { return *tid != 0 && isBlockedIn(*tid, calls); });
    return started;
}

} // namespace kestrelvane::testing
