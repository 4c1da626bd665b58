#include "support/CliProcess.h"

#include "support/SimulatorProcess.h"

#include <algorithm>

namespace kestrelvane::testing {

std::unique_ptr<ChildProcess> start(const std::string& program,
                                    const std::vector<std::string>& arguments,
                                    ChildProcess::Environment environment, Streams streams) {
    const char* redirect = streams == Streams::joined       ? "exec \"$0\" \"$@\" 2>&1"
                           : streams == Streams::stderrOnly ? "exec \"$0\" \"$@\" 2>&1 >/dev/null"
                                                            : "exec \"$0\" \"$@\"";
    std::vector<std::string> argv = {"/bin/sh", "-c", redirect, program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    environment.emplace_back("TZ", "UTC");
    return std::make_unique<ChildProcess>(argv, environment);
}

std::unique_ptr<ChildProcess> kestrelvane(const std::vector<std::string>& arguments,
                                          const ChildProcess::Environment& environment,
                                          Streams streams) {
    return start(cliProgram(), arguments, environment, streams);
}

bool Finished::mentions(const std::string& text) const {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
}

std::string Finished::text() const {
    std::string all;
    for (const auto& line : lines) {
        all += line + "\n";
    }
    return all;
}

Finished finish(ChildProcess& process, std::chrono::milliseconds deadline,
                const std::function<void(const std::string&)>& onLine) {
    Finished finished;
    while (auto line = process.readLine(deadline)) {
        if (onLine) {
            onLine(*line);
        }
        finished.lines.push_back(*line);
    }
    finished.status = process.waitFor(deadline).value_or(-1);
    return finished;
}

Finished run(const std::vector<std::string>& arguments,
             const ChildProcess::Environment& environment, Streams streams) {
    return finish(*kestrelvane(arguments, environment, streams));
}

} // namespace kestrelvane::testing
