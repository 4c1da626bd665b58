#include "CommandLine.h"

#include "KestrelvaneKit/log/KVLog.h"

#include <charconv>

namespace kestrelvane::cli {

CommandLine::CommandLine(const std::vector<std::string>& arguments, const Grammar& grammar) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (word == "--") {
            operands_.insert(operands_.end(), arguments.begin() + static_cast<long>(i) + 1,
                             arguments.end());
            break;
        }
        if (word.size() < 3 || word.rfind("--", 0) != 0) {
            if (word.size() > 1 && word[0] == '-') {
                throw UsageError("unknown option '" + word + "'");
            }
            operands_.push_back(word);
            continue;
        }
        const auto equals = word.find('=');
        const std::string name =
            word.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
        std::optional<std::string> inlineValue;
        if (equals != std::string::npos) {
            inlineValue = word.substr(equals + 1);
        }
        if (grammar.flags.count(name) != 0) {
            if (inlineValue) {
                throw UsageError("option '--" + name + "' takes no value");
            }
            values_[name] = "";
        } else if (grammar.valued.count(name) != 0) {
            if (inlineValue) {
                values_[name] = *inlineValue;
            } else if (i + 1 < arguments.size()) {
                values_[name] = arguments[++i];
            } else {
                throw UsageError("option '--" + name + "' needs a value");
            }
        } else if (grammar.optionalValue.count(name) != 0) {
            if (inlineValue) {
                values_[name] = *inlineValue;
            } else if (i + 1 < arguments.size() && !arguments[i + 1].empty() &&
                       arguments[i + 1][0] != '-') {
                values_[name] = arguments[++i];
            } else {
                values_[name] = "";
            }
        } else {
            throw UsageError("unknown option '--" + name + "'");
        }
    }
}

std::optional<std::string> CommandLine::value(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return found->second;
}

void applyLogOption(const CommandLine& line) {
    const auto log = line.value("log");
    if (!log) {
        return;
    }
    if (*log != "stderr") {
        throw UsageError("--log takes 'stderr', not '" + *log + "'");
    }
    KVLog::setSink(KVLog::stderrSink());
}

int parsePort(const std::string& text, bool allowZero) {
    int port = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port > 65535 ||
        port < (allowZero ? 0 : 1)) {
        throw UsageError("'" + text + "' is not a port number");
    }
    return port;
}

} // namespace kestrelvane::cli
