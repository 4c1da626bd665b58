#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// `size` bytes that differ from position to position and from seed to seed,
/// so that a shifted, truncated or mixed-up copy never looks like the original.
inline Bytes pattern(std::size_t size, std::uint8_t seed = 0) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<std::uint8_t>(seed + i * 13 + i / 251);
    }
    return out;
}

/// Writes `bytes` at `path`, making its folders; returns the path.
inline std::filesystem::path writeFile(const std::filesystem::path& path, const Bytes& bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
}

inline std::filesystem::path writeFile(const std::filesystem::path& path, std::string_view text) {
    return writeFile(path, toBytes(text));
}

/// `count` photos and videos of about `size` bytes each, all different:
/// IMG_1000.jpg, IMG_1001.jpg and so on, every fourth a .mov.
inline std::vector<std::filesystem::path> writeBatch(const std::filesystem::path& folder, int count,
                                                     std::size_t size) {
    std::vector<std::filesystem::path> files;
    for (int i = 0; i < count; ++i) {
        const std::string name = "IMG_" + std::to_string(1000 + i) + (i % 4 == 3 ? ".mov" : ".jpg");
        files.push_back(writeFile(folder / name, pattern(size + i, static_cast<std::uint8_t>(i))));
    }
    return files;
}

/// The whole content of a file; empty when it cannot be read.
inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline Bytes readBytes(const std::filesystem::path& path) {
    return toBytes(readText(path));
}

} // namespace kestrelvane::testing
