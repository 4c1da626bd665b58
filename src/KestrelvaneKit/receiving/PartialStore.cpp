#include "KestrelvaneKit/receiving/PartialStore.h"

#include "KestrelvaneKit/intake/Checksum.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* bytesSuffix = ".part";
constexpr const char* descriptionSuffix = ".json";

json describe(const PartialStore::Key& key) {
    return json{{"device", key.device},
                {"name", key.name},
                {"byteCount", key.byteCount},
                {"sha256", key.sha256}};
}

std::optional<json> readDescription(const fs::path& path) {
    std::ifstream in(path);
    if (!in) {
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    try {
        return json::parse(text.str());
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

fs::path withSuffix(const fs::path& folder, const std::string& id, const char* suffix) {
    return folder / (id + suffix);
}

} // namespace

std::string PartialStore::idOf(const Key& key) const {
    const std::string text = describe(key).dump();
    return Checksum::sha256Hex(
        ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

fs::path PartialStore::bytesPath(const Key& key) const {
    return withSuffix(folder_, idOf(key), bytesSuffix);
}

std::optional<std::uint64_t> PartialStore::held(const Key& key) const {
    const std::string id = idOf(key);
    const fs::path bytes = withSuffix(folder_, id, bytesSuffix);
    const auto description = readDescription(withSuffix(folder_, id, descriptionSuffix));
    std::error_code error;
    const auto size = fs::file_size(bytes, error);
    if (!description && error) {
        return std::nullopt; // nothing kept
    }
    const auto age = fs::file_time_type::clock::now() - fs::last_write_time(bytes, error);
    if (error || !description || *description != describe(key) || size > key.byteCount ||
        age > maxAge || !fs::is_regular_file(fs::symlink_status(bytes, error))) {
        remove(key);
        return std::nullopt;
    }
    return size;
}

FileDescriptor PartialStore::open(const Key& key, std::uint64_t from) const {
    std::error_code error;
    fs::create_directories(folder_, error);
    const std::string id = idOf(key);
    const fs::path bytes = withSuffix(folder_, id, bytesSuffix);
    if (from == 0) {
        remove(key);
        // The description first: bytes without one are never offered back.
        const fs::path description = withSuffix(folder_, id, descriptionSuffix);
        std::ofstream out(description, std::ios::trunc);
        out << describe(key).dump();
        out.close();
        if (!out) {
            throw std::system_error(errno ? errno : EIO, std::generic_category(),
                                    "cannot write " + description.string());
        }
    }
    FileDescriptor fd(
        ::open(bytes.c_str(),
               O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (from == 0 ? O_TRUNC : 0), 0600));
    if (!fd) {
        throw std::system_error(errno, std::generic_category(), "cannot open " + bytes.string());
    }
    if (::ftruncate(fd.get(), static_cast<off_t>(from)) != 0 ||
        ::lseek(fd.get(), static_cast<off_t>(from), SEEK_SET) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot resume " + bytes.string());
    }
    return fd;
}

void PartialStore::remove(const Key& key) const noexcept {
    const std::string id = idOf(key);
    std::error_code error;
    fs::remove(withSuffix(folder_, id, descriptionSuffix), error);
    fs::remove(withSuffix(folder_, id, bytesSuffix), error);
}

int PartialStore::prune() const {
    struct Kept {
        fs::path bytes;
        fs::file_time_type written;
        std::uint64_t size;
    };
    std::vector<Kept> kept;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder_, error)) {
        if (entry.path().extension() == bytesSuffix) {
            std::error_code entryError;
            const auto written = fs::last_write_time(entry.path(), entryError);
            const auto size = fs::file_size(entry.path(), entryError);
            kept.push_back({entry.path(), written, entryError ? 0 : size});
        }
    }
    // Oldest last, so that the loop below drops from the back.
    std::sort(kept.begin(), kept.end(),
              [](const Kept& a, const Kept& b) { return a.written > b.written; });
    const auto oldest = fs::file_time_type::clock::now() - maxAge;
    std::uint64_t total = 0;
    for (const Kept& partial : kept) {
        total += partial.size;
    }
    int removed = 0;
    while (!kept.empty() && (kept.back().written < oldest || total > maxTotalBytes)) {
        const Kept& partial = kept.back();
        fs::path description = partial.bytes;
        description.replace_extension(descriptionSuffix);
        fs::remove(description, error);
        fs::remove(partial.bytes, error);
        total -= partial.size;
        kept.pop_back();
        ++removed;
    }
    return removed;
}

} // namespace kestrelvane
