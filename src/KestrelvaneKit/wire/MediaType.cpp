#include "KestrelvaneKit/wire/MediaType.h"

namespace kestrelvane {

std::string_view wireString(MediaType type) noexcept {
    return type == MediaType::photo ? "photo" : "video";
}

std::optional<MediaType> mediaTypeFromWire(std::string_view text) noexcept {
    if (text == "photo") {
        return MediaType::photo;
    }
    if (text == "video") {
        return MediaType::video;
    }
    return std::nullopt;
}

} // namespace kestrelvane
