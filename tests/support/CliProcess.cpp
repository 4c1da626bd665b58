#include "support/CliProcess.h"

#include "KestrelvaneKit/network/PairedDevices.h"
#include "support/Eventually.h"
#include "support/SimulatorProcess.h"
#include "support/TestFiles.h"

#include <algorithm>
#include <fcntl.h>
#include <regex>
#include <stdexcept>
#include <unistd.h>

namespace kestrelvane::testing {

const std::filesystem::path& testDeviceHome() {
    static const TemporaryFolder home;
    return home.path();
}

std::unique_ptr<ChildProcess> kestrelvane(const std::vector<std::string>& arguments,
                                          ChildProcess::Environment environment, Streams streams,
                                          int stdinFd) {
    const char* redirect = streams == Streams::joined       ? "exec \"$0\" \"$@\" 2>&1"
                           : streams == Streams::stderrOnly ? "exec \"$0\" \"$@\" 2>&1 >/dev/null"
                                                            : "exec \"$0\" \"$@\"";
    std::vector<std::string> argv = {"/bin/sh", "-c", redirect, cliProgram()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    environment.emplace_back("TZ", "UTC");
    if (std::none_of(environment.begin(), environment.end(),
                     [](const auto& variable) { return variable.first == "XDG_DATA_HOME"; })) {
        environment.emplace_back("XDG_DATA_HOME", testDeviceHome().string());
    }
    return std::make_unique<ChildProcess>(argv, environment, stdinFd);
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
                                 const std::string& bind, std::vector<std::string> wrapper,
                                 bool acceptAnyone)
    : bind_(bind) {
    wrapper.insert(wrapper.end(), {cliProgram(), "receive", "--dir", folder.string(), "--port", "0",
                                   "--bind", bind});
    wrapper.insert(wrapper.end(), extra.begin(), extra.end());
    if (acceptAnyone) {
        wrapper.push_back("--accept-anyone");
    }
    ChildProcess::Environment ownEnvironment = environment;
    for (const auto& [name, value] : environment) {
        if (name == "XDG_DATA_HOME") {
            dataHome_ = value; // the same device as an earlier receiver
        }
    }
    if (dataHome_.empty()) {
        dataHome_ = home_.path();
        ownEnvironment.emplace_back("XDG_DATA_HOME", dataHome_.string());
    }
    ownEnvironment.emplace_back("XDG_CACHE_HOME", (dataHome_ / "cache").string());
    const int out = ::open((output_.path() / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    int input[2] = {-1, -1};
    if (::pipe2(input, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for the receiver's input");
    }
    input_ = input[1];
    process_ = std::make_unique<ChildProcess>(wrapper, ownEnvironment, input[0], out);
    ::close(input[0]);
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
    // Paired both ways, as `kestrelvane pair` would leave them.
    const auto sender = testDeviceHome() / "kestrelvane";
    const auto receiver = dataHome_ / "kestrelvane";
    const Timestamp now{};
    PairedDevices(sender).add({DeviceIdentity::loadOrCreate(receiver).fingerprint(),
                               "receiver " + address(), address(), now});
    PairedDevices(receiver).add(
        {DeviceIdentity::loadOrCreate(sender).fingerprint(), "test sender", {}, now});
}

ReceiverProcess::~ReceiverProcess() {
    ::close(input_);
}

void ReceiverProcess::type(const std::string& line) const {
    const std::string typed = line + "\n";
    if (::write(input_, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) {
        throw std::runtime_error("the receiver's input is closed");
    }
}

std::string ReceiverProcess::found(const std::string& pattern) const {
    std::smatch match;
    std::string said;
    eventually([&] {
        said = readText(output_.path() / "out");
        return std::regex_search(said, match, std::regex(pattern));
    });
    return match.empty() ? std::string() : match[1].str();
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
