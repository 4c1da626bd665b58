#include "KestrelvaneKit/intake/QueuePlanner.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <system_error>
#include <unistd.h>
#include <unordered_set>

namespace kestrelvane::QueuePlanner {
namespace fs = std::filesystem;

std::string key(const fs::path& location) {
    std::error_code ignored;
    fs::path absolute = fs::absolute(location, ignored);
    if (absolute.empty()) {
        absolute = location;
    }
    std::string normal = absolute.lexically_normal().string();
    // "/p/a.jpg/" and "/p/a.jpg" name the same location.
    while (normal.size() > 1 && normal.ends_with('/')) {
        normal.pop_back();
    }
    return UnicodeText::nfc(normal);
}

std::vector<fs::path> plan(const std::vector<fs::path>& adding, const std::vector<fs::path>& to,
                           std::vector<Unreadable>* unreadable) {
    return plan(
        adding, to, [](const fs::path& folder) { return MediaScanner::scan(folder); }, unreadable);
}

std::vector<fs::path> plan(const std::vector<fs::path>& adding, const std::vector<fs::path>& to,
                           const FolderScan& scanFolder, std::vector<Unreadable>* unreadable) {
    std::unordered_set<std::string> seen;
    seen.reserve(to.size() + adding.size());
    for (const fs::path& queued : to) {
        seen.insert(key(queued));
    }
    std::vector<fs::path> result;
    const auto take = [&](const fs::path& file) {
        if (MediaScanner::mediaType(file) && seen.insert(key(file)).second) {
            result.push_back(file);
        }
    };
    for (const fs::path& location : adding) {
        std::error_code error;
        const fs::file_status status = fs::status(location, error);
        if (!error && !fs::exists(status)) {
            error = std::make_error_code(std::errc::no_such_file_or_directory);
        } else if (!error && ::access(location.c_str(), R_OK) != 0) {
            error = std::error_code(errno, std::generic_category());
        }
        if (error) {
            if (unreadable != nullptr) {
                unreadable->push_back({location, error});
            }
            continue;
        }
        if (!fs::is_directory(status)) {
            take(location);
            continue;
        }
        for (const fs::path& file : scanFolder(location)) {
            take(file);
        }
    }
    return result;
}

} // namespace kestrelvane::QueuePlanner
