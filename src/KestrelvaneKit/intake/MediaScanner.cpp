#include "KestrelvaneKit/intake/MediaScanner.h"

#include <algorithm>

namespace kestrelvane::MediaScanner {

const std::set<std::string>& photoExtensions() {
    static const std::set<std::string> extensions{"jpg",  "jpeg", "heic", "heif", "png", "tif",
                                                  "tiff", "dng",  "cr2",  "cr3",  "nef", "arw",
                                                  "raf",  "orf",  "rw2",  "pef",  "3fr"};
    return extensions;
}

const std::set<std::string>& videoExtensions() {
    static const std::set<std::string> extensions{"mov", "mp4", "m4v"};
    return extensions;
}

std::optional<MediaType> mediaType(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    const auto dot = name.rfind('.');
    if (dot == std::string::npos) {
        return std::nullopt;
    }
    std::string extension = name.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (photoExtensions().count(extension) != 0) {
        return MediaType::photo;
    }
    if (videoExtensions().count(extension) != 0) {
        return MediaType::video;
    }
    return std::nullopt;
}

} // namespace kestrelvane::MediaScanner
