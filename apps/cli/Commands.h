#pragma once

#include <string>
#include <vector>

namespace kestrelvane::cli {

/// Exit statuses shared by every command.
enum ExitStatus : int {
    exitOk = 0,
    exitSomeFilesNotSaved = 1,
    exitUsage = 2,
    exitNoConnection = 3,
};

/// Each command takes the words after its name and returns the exit status.
int runSend(const std::vector<std::string>& arguments);
int runReceive(const std::vector<std::string>& arguments);
int runDevices(const std::vector<std::string>& arguments);
int runDemo(const std::vector<std::string>& arguments);

} // namespace kestrelvane::cli
