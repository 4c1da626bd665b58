#pragma once

#include "KestrelvaneKit/wire/Timestamp.h"

#include <filesystem>
#include <optional>

namespace kestrelvane::ExifReader {

/// The moment a photo was taken: the EXIF DateTimeOriginal of its first image,
/// read as local time in the time zone this process had when it first asked.
/// Nothing else is consulted (not the digitized date, not the file's dates).
/// Only metadata is read. Never throws and never prints; anything unreadable
/// is simply no date. Safe to call from several threads at once.
std::optional<Timestamp> captureDate(const std::filesystem::path& path) noexcept;

} // namespace kestrelvane::ExifReader
