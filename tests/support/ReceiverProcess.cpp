#include "support/ReceiverProcess.h"

#include "support/Eventually.h"
#include "support/SimulatorProcess.h"

#include <algorithm>
#include <csignal>
#include <regex>
#include <stdexcept>

namespace kestrelvane::testing {

ReceiverProcess::ReceiverProcess(const std::filesystem::path& folder,
                                 const std::vector<std::string>& extra,
                                 const ChildProcess::Environment& environment,
                                 const std::string& bind, const std::vector<std::string>& wrapper)
    : bind_(bind) {
    std::vector<std::string> arguments = {"receive", "--dir", folder.string(), "--port", "0",
                                          "--bind",  bind};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    if (wrapper.empty()) {
        process_ = kestrelvane(arguments, environment, Streams::stdoutOnly);
    } else {
        arguments.insert(arguments.begin(), cliProgram());
        arguments.insert(arguments.begin(), wrapper.begin() + 1, wrapper.end());
        process_ = start(wrapper.front(), arguments, environment, Streams::stdoutOnly);
    }
    // "Receiving into FOLDER on port N"
    const auto first = process_->readLine();
    std::smatch match;
    if (!first || !std::regex_search(*first, match, std::regex("on port ([0-9]+)$"))) {
        throw std::runtime_error("the receiver did not say where it listens: " +
                                 first.value_or("(nothing)"));
    }
    port_ = std::stoi(match[1]);
    reader_ = std::thread([this] {
        while (const auto line = process_->readLine(std::chrono::hours(24))) {
            const std::lock_guard lock(mutex_);
            lines_.push_back(*line);
        }
    });
}

ReceiverProcess::~ReceiverProcess() {
    stop();
}

std::string ReceiverProcess::address() const {
    const bool v6 = bind_.find(':') != std::string::npos;
    return (v6 ? "[" + bind_ + "]" : bind_) + ":" + std::to_string(port_);
}

bool ReceiverProcess::says(const std::string& text, std::chrono::milliseconds deadline) const {
    return eventually(
        [&] {
            const std::lock_guard lock(mutex_);
            return std::any_of(lines_.begin(), lines_.end(),
                               [&](const auto& line) { return line.find(text) != line.npos; });
        },
        deadline);
}

Finished ReceiverProcess::finish(std::chrono::milliseconds deadline) {
    const auto status = process_->waitFor(deadline);
    stop();
    const std::lock_guard lock(mutex_);
    return {status.value_or(-1), lines_};
}

void ReceiverProcess::stop() {
    if (!process_->terminate()) {
        ::kill(process_->pid(), SIGKILL);
        process_->waitFor();
    }
    if (reader_.joinable()) {
        reader_.join(); // its output ends with it
    }
}

} // namespace kestrelvane::testing
