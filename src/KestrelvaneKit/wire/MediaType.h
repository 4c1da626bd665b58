#pragma once

#include <optional>
#include <string_view>

namespace kestrelvane {

enum class MediaType { photo, video };

/// "photo" or "video".
std::string_view wireString(MediaType type) noexcept;
/// The case whose wire string is exactly `text`; nothing for any other text.
std::optional<MediaType> mediaTypeFromWire(std::string_view text) noexcept;

} // namespace kestrelvane
