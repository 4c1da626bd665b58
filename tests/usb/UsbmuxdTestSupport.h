#pragma once

#include "KestrelvaneKit/usb/PropertyList.h"
#include "KestrelvaneKit/usb/UsbmuxdClient.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"
#include "support/SimulatorProcess.h"
#include "support/TemporaryFolder.h"

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrelvane::testing {

struct RandomFiles {
    std::vector<std::filesystem::path> paths;
    std::map<std::string, std::string> contents; ///< by file name
};
/// Files of the given names and sizes in `folder`, filled with seeded noise.
RandomFiles writeRandomFiles(const std::filesystem::path& folder,
                             const std::vector<std::pair<std::string, std::size_t>>& files);
std::string readFile(const std::filesystem::path& path);

} // namespace kestrelvane::testing
