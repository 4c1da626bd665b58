#include "CommandLine.h"

#include "Commands.h"
#include "KestrelvaneKit/log/KVLog.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <sstream>

namespace kestrelvane::cli {

namespace {

/// What every command takes besides its own options.
const std::vector<Option> commonOptions = {
    {"log", "stderr", "the library's log lines on stderr instead of the journal"},
    {"help"}, // prints the usage; the tool's usage says so
};

constexpr std::size_t lineWidth = 79;
constexpr std::size_t widestTerm = 18; // a wider one has a line of its own

/// The command's own options, then the common ones.
std::vector<Option> optionsOf(const Command& command) {
    std::vector<Option> options = command.options;
    options.insert(options.end(), commonOptions.begin(), commonOptions.end());
    return options;
}

double parseNumber(const Option& option, const std::string& text) {
    const Option::Number& range = *option.number;
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    // Asked this way round, "nan" is out of range too.
    if (error != std::errc() || end != text.data() + text.size() ||
        (range.whole && text.find_first_not_of("-0123456789") != std::string::npos) ||
        !(number >= range.minimum && number <= range.maximum)) {
        throw UsageError("--" + option.name + " takes " +
                         (range.whole ? "a whole number" : "a number") + " from " +
                         std::to_string(range.minimum) + " to " + std::to_string(range.maximum) +
                         ", not '" + text + "'");
    }
    return number;
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

/// `words` after `out`, in lines of at most lineWidth columns, the next ones
/// indented by `indent`.
std::string wrap(std::string out, const std::vector<std::string>& words, std::size_t indent) {
    std::size_t start = out.rfind('\n') + 1; // of the line being filled
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0 && out.size() - start + 1 + words[i].size() > lineWidth) {
            out += '\n';
            start = out.size();
            out.append(indent, ' ');
        } else if (i > 0) {
            out += ' ';
        }
        out += words[i];
    }
    return out + '\n';
}

/// "  TERM  TEXT" lines, the texts aligned in one column.
std::string table(const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t column = 0;
    for (const auto& row : rows) {
        if (row.first.size() <= widestTerm) {
            column = std::max(column, row.first.size());
        }
    }
    const std::size_t indent = column + 4;
    std::string out;
    for (const auto& [term, text] : rows) {
        const std::string head = "  " + term;
        out += wrap(head + (term.size() <= column ? std::string(indent - head.size(), ' ')
                                                  : "\n" + std::string(indent, ' ')),
                    wordsOf(text), indent);
    }
    return out;
}

} // namespace

CommandLine::CommandLine(const Command& command, const std::vector<std::string>& arguments,
                         const std::function<void(const CommandLine&)>& check) {
    try {
        parse(command, arguments);
        if (has("help")) {
            std::fputs(usage(command).c_str(), stdout);
            finished = exitOk;
            return;
        }
        if (const auto log = value("log")) {
            if (*log != "stderr") {
                throw UsageError("--log takes 'stderr', not '" + *log + "'");
            }
            KVLog::setSink(KVLog::stderrSink());
        }
        if (command.operands.empty() && !operands_.empty()) {
            throw UsageError("unexpected '" + operands_.front() + "'");
        }
        for (const Option& option : command.options) {
            const auto text = value(option.name);
            if (option.required && (!text || text->empty())) {
                throw UsageError("--" + option.name + " " + option.value + " is required");
            }
            if (option.number && text) {
                numbers_[option.name] = parseNumber(option, *text);
            }
        }
        if (check) {
            check(*this);
        }
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestrelvane %s: %s\n\n%s", command.name.c_str(), error.what(),
                     usage(command).c_str());
        finished = exitUsage;
    }
}

void CommandLine::parse(const Command& command, const std::vector<std::string>& arguments) {
    const std::vector<Option> options = optionsOf(command);
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
        const auto option = std::find_if(options.begin(), options.end(),
                                         [&name](const Option& each) { return each.name == name; });
        if (option == options.end()) {
            throw UsageError("unknown option '--" + name + "'");
        }
        std::string& given = values_[name] = "";
        if (equals != std::string::npos) {
            if (option->flag()) {
                throw UsageError("option '--" + name + "' takes no value");
            }
            given = word.substr(equals + 1);
        } else if (!option->flag() && !option->optionalValue()) {
            if (i + 1 == arguments.size()) {
                throw UsageError("option '--" + name + "' needs a value");
            }
            given = arguments[++i];
        } else if (option->optionalValue() && i + 1 < arguments.size() &&
                   !arguments[i + 1].empty() && arguments[i + 1][0] != '-') {
            given = arguments[++i];
        }
    }
}

std::optional<std::string> CommandLine::value(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::nullopt : std::optional(found->second);
}

double CommandLine::number(const std::string& name, double fallback) const {
    const auto found = numbers_.find(name);
    return found == numbers_.end() ? fallback : found->second;
}

std::string usage(const Command& command) {
    std::vector<std::string> synopsis;
    std::vector<std::pair<std::string, std::string>> options;
    for (const Option& option : optionsOf(command)) {
        const std::string form = "--" + option.name + (option.flag() ? "" : " " + option.value);
        if (!option.help.empty() || !option.forms.empty()) {
            synopsis.push_back(option.required ? form : "[" + form + "]");
        }
        if (!option.help.empty()) {
            options.emplace_back(form, option.help);
        }
        for (const auto& [value, help] : option.forms) {
            options.emplace_back("--" + option.name + " " + value, help);
        }
    }
    if (!command.operands.empty()) {
        synopsis.push_back(command.operands);
    }
    const std::string head = "usage: kestrelvane " + command.name + " ";
    std::string out = wrap(head, synopsis, head.size()) + "\n";
    for (const auto& paragraph : command.summary) {
        out += wrap("", wordsOf(paragraph), 0) + "\n";
    }
    out += table(options);
    std::vector<std::pair<std::string, std::string>> statuses;
    for (const auto& [status, meaning] : command.exitStatuses) {
        statuses.emplace_back(std::to_string(status), meaning);
    }
    return out + "\nExit status:\n" + table(statuses);
}

std::string usage(const std::vector<const Command*>& commands) {
    std::vector<std::pair<std::string, std::string>> rows;
    for (const Command* command : commands) {
        rows.emplace_back(command->name, command->about);
    }
    return "usage: kestrelvane COMMAND [OPTIONS]\n\n"
           "Copies photos and videos to an iPhone, byte for byte: every file is verified\n"
           "by SHA-256 on the receiving side and acknowledged.\n\nCommands:\n" +
           table(rows) +
           "\nEvery command takes --help, and --log stderr to write the library's log\n"
           "lines to stderr instead of the journal.\n";
}

} // namespace kestrelvane::cli
