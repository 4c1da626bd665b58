#include "support/CliProcess.h"

#include "support/Eventually.h"
#include "support/SimulatorProcess.h"
#include "support/TestFiles.h"

#include <fcntl.h>
#include <regex>
#include <stdexcept>
#include <unistd.h>

namespace kestrelvane::testing {

std::unique_ptr<ChildProcess> kestrelvane(const std::vector<std::string>& arguments,
                                          ChildProcess::Environment environment, Streams streams) {
    const char* redirect = streams == Streams::joined       ? "exec \"$0\" \"$@\" 2>&1"
                           : streams == Streams::stderrOnly ? "exec \"$0\" \"$@\" 2>&1 >/dev/null"
                                                            : "exec \"$0\" \"$@\"";
    std::vector<std::string> argv = {"/bin/sh", "-c", redirect, cliProgram()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    environment.emplace_back("TZ", "UTC");
    return std::make_unique<ChildProcess>(argv, environment);
}

Finished finish(ChildProcess& process, std::chrono::milliseconds deadline,
                const std::function<void(const std::string&)>& onLine) {
    Finished finished;
    while (auto line = process.readLine(deadline)) {
        if (onLine) {
            onLine(*line);
        }
        finished.lines.push_back(*line);
        finished.text += *line + "\n";
    }
    finished.status = process.waitFor(deadline).value_or(-1);
    return finished;
}

Finished run(const std::vector<std::string>& arguments,
             const ChildProcess::Environment& environment, Streams streams) {
    return finish(*kestrelvane(arguments, environment, streams));
}

ReceiverProcess::ReceiverProcess(const std::filesystem::path& folder,
                                 const std::vector<std::string>& extra,
                                 const ChildProcess::Environment& environment,
                                 const std::string& bind, std::vector<std::string> wrapper)
    : bind_(bind) {
    wrapper.insert(wrapper.end(), {cliProgram(), "receive", "--dir", folder.string(), "--port", "0",
                                   "--bind", bind});
    wrapper.insert(wrapper.end(), extra.begin(), extra.end());
    const int out = ::open((output_.path() / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    process_ = std::make_unique<ChildProcess>(wrapper, environment, -1, out);
    ::close(out);
    // "Receiving into FOLDER on port N"
    std::string said;
    eventually([&] {
        said = readText(output_.path() / "out");
        return said.find('\n') != said.npos || process_->waitFor(std::chrono::milliseconds(0));
    });
    std::smatch match;
    if (!std::regex_search(said, match, std::regex("on port ([0-9]+)\n"))) {
        throw std::runtime_error("the receiver did not say where it listens: " + said);
    }
    port_ = std::stoi(match[1]);
}

std::string ReceiverProcess::address() const {
    const bool v6 = bind_.find(':') != std::string::npos;
    return (v6 ? "[" + bind_ + "]" : bind_) + ":" + std::to_string(port_);
}

bool ReceiverProcess::says(const std::string& text, std::chrono::milliseconds deadline) const {
    return eventually(
        [&] { return readText(output_.path() / "out").find(text) != std::string::npos; }, deadline);
}

} // namespace kestrelvane::testing
