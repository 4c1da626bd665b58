#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

namespace kestrelvane::QueuePlanner {

/// What joins the queue when `adding` (dropped files and folders, in order) is
/// dropped onto a queue holding `to`: each folder replaced by its media files
/// (MediaScanner::scan) at its own place, non-media and missing paths left
/// out, and every file whose key is already queued or met earlier left out.
/// Locations come back exactly as given or as the scan produced them.
/// Throws what a folder scan throws; nothing is returned then.
///
/// A given path that does not exist or cannot be read is added to
/// `unreadable`, when given, with the reason.
struct Unreadable {
    std::filesystem::path path;
    std::error_code error;
};
std::vector<std::filesystem::path> plan(const std::vector<std::filesystem::path>& adding,
                                        const std::vector<std::filesystem::path>& to,
                                        std::vector<Unreadable>* unreadable = nullptr);

/// plan() with `scanFolder` in place of MediaScanner::scan.
using FolderScan = std::function<std::vector<std::filesystem::path>(const std::filesystem::path&)>;
std::vector<std::filesystem::path> plan(const std::vector<std::filesystem::path>& adding,
                                        const std::vector<std::filesystem::path>& to,
                                        const FolderScan& scanFolder,
                                        std::vector<Unreadable>* unreadable = nullptr);

/// The identity of a location for duplicate detection: its absolute path with
/// "." and ".." segments removed lexically (symbolic links are not resolved),
/// in Unicode NFC so that canonically equivalent spellings are one key.
std::string key(const std::filesystem::path& location);

} // namespace kestrelvane::QueuePlanner
