#pragma once

#include "KestrelvaneKit/wire/MediaType.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
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

/// How a scan reads an entry's type without following a link; on failure it
/// sets the error code.
using TypeReader = std::function<std::filesystem::file_status(
    const std::filesystem::directory_entry&, std::error_code&)>;

/// scan() reading each entry's type with `readType`: where the listing carries
/// the types, reading one cannot fail, so this is how that failure is reached.
std::vector<std::filesystem::path> scan(const std::filesystem::path& folder,
                                        const TypeReader& readType);

} // namespace kestrelvane::MediaScanner
