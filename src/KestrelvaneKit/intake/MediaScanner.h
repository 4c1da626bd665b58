#pragma once

#include "KestrelvaneKit/wire/MediaType.h"

#include <filesystem>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace kestrelvane::MediaScanner {

/// Lower-case extensions, without the dot.
const std::unordered_set<std::string>& photoExtensions();
const std::unordered_set<std::string>& videoExtensions();

/// Photo or video by the lower-cased extension of the name alone (the file
/// system is not touched); nothing for any other file.
std::optional<MediaType> mediaType(const std::filesystem::path& path);

/// The photos and videos in `folder` and all its sub-folders, flattened and
/// ordered by file name alone (case-insensitive, in the user's locale; equal
/// names keep the order the walk met them). Entries whose names begin with a
/// dot are neither returned nor entered, symbolic links are not followed and
/// only regular files count. A folder that cannot be opened gives an empty
/// list and an unreadable sub-folder is passed over; an entry whose type
/// cannot be read fails the whole scan with std::filesystem::filesystem_error.
std::vector<std::filesystem::path> scan(const std::filesystem::path& folder);

} // namespace kestrelvane::MediaScanner
