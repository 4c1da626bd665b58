#include "KestrelvaneKit/wire/MediaType.h"

namespace kestrelvane {

std::string_view wireString(MediaType type) noexcept {
    return type == MediaType::photo ? "photo" : "video";
}

} // namespace kestrelvane
