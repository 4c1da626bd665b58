#include "UsbmuxdTestSupport.h"

#include "KestrelvaneKit/usb/UsbmuxdProtocol.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrelvane::testing {

RandomFiles writeRandomFiles(const std::filesystem::path& folder,
                             const std::vector<std::pair<std::string, std::size_t>>& files) {
    RandomFiles out;
    std::mt19937 random(2024);
    for (const auto& [name, size] : files) {
        std::string content(size, '\0');
        for (auto& c : content) {
            c = static_cast<char>(random());
        }
        out.paths.push_back(folder / name);
        std::ofstream(out.paths.back(), std::ios::binary) << content;
        out.contents[name] = std::move(content);
    }
    return out;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace kestrelvane::testing
