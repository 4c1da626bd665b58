#include "KestrelvaneKit/intake/MediaScanner.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string_view>
#include <system_error>
#include <utility>

namespace kestrelvane::MediaScanner {
namespace fs = std::filesystem;

namespace {

char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Depth first, entering each folder where the walk meets it, so that the
/// order of equal names is the order of the walk.
void walk(const fs::path& folder, const TypeReader& readType, std::vector<fs::path>& found) {
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    if (error) {
        return; // an unreadable folder is passed over
    }
    for (const fs::directory_iterator end; entries != end; entries.increment(error)) {
        const fs::directory_entry& entry = *entries;
        const std::string name = entry.path().filename().string();
        if (name.starts_with('.')) {
            continue;
        }
        // The type comes with the directory listing where the file system
        // reports it; otherwise this is the entry's own lstat.
        const fs::file_status status = readType(entry, error);
        if (error) {
            throw fs::filesystem_error("cannot read the type of an entry", entry.path(), error);
        }
        if (fs::is_directory(status)) {
            walk(entry.path(), readType, found);
        } else if (fs::is_regular_file(status) && mediaType(entry.path())) {
            found.push_back(entry.path());
        }
    }
    // A failed step ends this folder's listing quietly, like an unreadable folder.
}

/// Keys that compare as the user's locale compares names, ignoring case but
/// not accents; names with equal keys are equal to the collator.
std::vector<std::string> sortKeys(const std::vector<fs::path>& files) {
    // ICU maps the C and POSIX locales to en_US_POSIX, whose collation orders
    // by code point and so by case; such a user gets the root order instead.
    const icu::Locale& user = icu::Locale::getDefault();
    const bool posix = std::string_view(user.getVariant()) == "POSIX";
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(
        icu::Collator::createInstance(posix ? icu::Locale::getRoot() : user, status));
    std::vector<std::string> keys;
    keys.reserve(files.size());
    if (U_FAILURE(status) || !collator) {
        for (const fs::path& file : files) {
            std::string name = file.filename().string();
            std::transform(name.begin(), name.end(), name.begin(), asciiLower);
            keys.push_back(std::move(name));
        }
        return keys;
    }
    collator->setStrength(icu::Collator::SECONDARY);
    std::string key(64, '\0');
    for (const fs::path& file : files) {
        const icu::UnicodeString name = icu::UnicodeString::fromUTF8(file.filename().string());
        const auto write = [&] {
            return static_cast<std::size_t>(
                collator->getSortKey(name, reinterpret_cast<std::uint8_t*>(key.data()),
                                     static_cast<std::int32_t>(key.size())));
        };
        std::size_t length = write();
        if (length > key.size()) {
            key.resize(length);
            length = write();
        }
        keys.emplace_back(key.data(), length);
    }
    return keys;
}

} // namespace

const std::unordered_set<std::string>& photoExtensions() {
    static const std::unordered_set<std::string> extensions{
        "jpg", "jpeg", "heic", "heif", "png", "tif", "tiff", "dng", "cr2",
        "cr3", "nef",  "arw",  "raf",  "orf", "rw2", "pef",  "3fr"};
    return extensions;
}

const std::unordered_set<std::string>& videoExtensions() {
    static const std::unordered_set<std::string> extensions{"mov", "mp4", "m4v"};
    return extensions;
}

std::optional<MediaType> mediaType(const fs::path& path) {
    const std::string name = path.filename().string();
    const auto dot = name.rfind('.');
    if (dot == std::string::npos) {
        return std::nullopt;
    }
    // ASCII lowering is enough: every extension in the sets is ASCII, and no
    // other character lowers to an ASCII letter used in them.
    std::string extension = name.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(), asciiLower);
    if (photoExtensions().contains(extension)) {
        return MediaType::photo;
    }
    if (videoExtensions().contains(extension)) {
        return MediaType::video;
    }
    return std::nullopt;
}

std::vector<fs::path> scan(const fs::path& folder) {
    return scan(folder, [](const fs::directory_entry& entry, std::error_code& error) {
        return entry.symlink_status(error);
    });
}

std::vector<fs::path> scan(const fs::path& folder, const TypeReader& readType) {
    std::vector<fs::path> found;
    walk(folder, readType, found);
    const std::vector<std::string> keys = sortKeys(found);
    std::vector<std::size_t> order(found.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
    std::vector<fs::path> sorted;
    sorted.reserve(found.size());
    for (const std::size_t index : order) {
        sorted.push_back(std::move(found[index]));
    }
    return sorted;
}

} // namespace kestrelvane::MediaScanner
