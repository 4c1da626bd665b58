#pragma once

#include "CommandLine.h"

#include <string>
#include <vector>

namespace kestrelvane::cli {

/// Exit statuses shared by every command; each command's declaration says
/// what they mean for it (its usage lists them).
enum ExitStatus : int {
    exitOk = 0,
    exitFailure = 1,
    exitUsage = 2,
    exitNoConnection = 3,
    exitNotTrusted = 4,
};

int runSend(const std::vector<std::string>& arguments);
int runReceive(const std::vector<std::string>& arguments);
int runDevices(const std::vector<std::string>& arguments);
int runDemo(const std::vector<std::string>& arguments);
int runId(const std::vector<std::string>& arguments);
int runPair(const std::vector<std::string>& arguments);

extern const Command sendCommand;
extern const Command receiveCommand;
extern const Command devicesCommand;
extern const Command demoCommand;
extern const Command idCommand;
extern const Command pairCommand;

} // namespace kestrelvane::cli
