#pragma once

#include <chrono>
#include <thread>

namespace kestrelvane::testing {

/// Polls `condition` until it holds or `deadline` has passed; for states that
/// offer nothing to wait on (another thread parked inside a library call).
template <class Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace kestrelvane::testing
