#pragma once

#include "support/ChildProcess.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// Which of a program's output streams the test reads.
enum class Streams { joined, stdoutOnly, stderrOnly };

/// `program` with `arguments`, in UTC, its chosen output on the pipe that
/// ChildProcess::readLine reads.
std::unique_ptr<ChildProcess> start(const std::string& program,
                                    const std::vector<std::string>& arguments,
                                    ChildProcess::Environment environment = {},
                                    Streams streams = Streams::joined);
/// The `kestrelvane` tool the build made.
std::unique_ptr<ChildProcess> kestrelvane(const std::vector<std::string>& arguments,
                                          const ChildProcess::Environment& environment = {},
                                          Streams streams = Streams::joined);

/// What a program printed, line by line, and its exit status.
struct Finished {
    int status = -1;
    std::vector<std::string> lines;
    bool mentions(const std::string& text) const;
    std::string text() const; ///< the lines, each ending in a newline
};

/// Reads everything `process` prints, each line also to `onLine` as it comes,
/// and waits for it to end.
Finished finish(ChildProcess& process,
                std::chrono::milliseconds deadline = std::chrono::seconds(120),
                const std::function<void(const std::string&)>& onLine = {});
/// Runs `kestrelvane` to its end.
Finished run(const std::vector<std::string>& arguments,
             const ChildProcess::Environment& environment = {}, Streams streams = Streams::joined);

} // namespace kestrelvane::testing
