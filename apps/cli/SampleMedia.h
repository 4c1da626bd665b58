#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace kestrelvane::cli::SampleMedia {

/// Writes `photos` small JPEG photos, each with its own EXIF capture date, and
/// one video of `videoBytes` bytes into `folder`; returns their paths.
/// Throws std::runtime_error when a file cannot be written.
std::vector<std::filesystem::path> create(const std::filesystem::path& folder, int photos,
                                          std::uint64_t videoBytes);

} // namespace kestrelvane::cli::SampleMedia
