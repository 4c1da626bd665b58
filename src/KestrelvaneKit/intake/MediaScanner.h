#pragma once

#include "KestrelvaneKit/wire/MediaType.h"

#include <filesystem>
#include <optional>
#include <set>
#include <string>

namespace kestrelvane::MediaScanner {

/// Lower-case extensions, without the dot.
const std::set<std::string>& photoExtensions();
const std::set<std::string>& videoExtensions();

/// Photo or video by the lower-cased extension of the name alone (the file
/// system is not touched); nothing for any other file.
std::optional<MediaType> mediaType(const std::filesystem::path& path);

} // namespace kestrelvane::MediaScanner
