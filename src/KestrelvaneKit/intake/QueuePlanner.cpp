#include "KestrelvaneKit/intake/QueuePlanner.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <system_error>
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

std::vector<fs::path> plan(const std::vector<fs::path>& adding, const std::vector<fs::path>& to) {
    return plan(adding, to, [](const fs::path& folder) { return MediaScanner::scan(folder); });
}

std::vector<fs::path> plan(const std::vector<fs::path>& adding, const std::vector<fs::path>& to,
                           const FolderScan& scanFolder) {
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
        if (error || !fs::exists(status)) {
            continue; // gone, or not reachable: left out without a word
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
