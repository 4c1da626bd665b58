#pragma once

#include "support/Eventually.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
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

/// The threads of this process now.
inline std::vector<pid_t> threadIDs() {
    std::vector<pid_t> ids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.push_back(static_cast<pid_t>(std::stol(entry.path().filename().string())));
    }
    return ids;
}

/// Whether a thread that is not one of `known` is parked in one of `calls`:
/// for a thread a library starts of its own.
inline bool aNewThreadIsBlockedIn(const std::vector<pid_t>& known, const std::vector<long>& calls) {
    for (const pid_t tid : threadIDs()) {
        if (std::find(known.begin(), known.end(), tid) == known.end() && isBlockedIn(tid, calls)) {
            return true;
        }
    }
    return false;
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
