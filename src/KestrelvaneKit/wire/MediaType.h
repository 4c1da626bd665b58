#pragma once

#include <string_view>

namespace kestrelvane {

enum class MediaType { photo, video };

/// "photo" or "video".
std::string_view wireString(MediaType type) noexcept;

} // namespace kestrelvane
