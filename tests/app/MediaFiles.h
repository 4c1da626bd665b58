#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kestrelvane::testing {

/// Writes `bytes` copies of `fill` at `path`, making its folders; returns the path.
inline std::filesystem::path writeFile(const std::filesystem::path& path, std::size_t bytes,
                                       char fill = 'x') {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << std::string(bytes, fill);
    return path;
}

/// IMG_0.jpg … in `folder`: file i holds 1000 + i bytes of its own letter.
inline std::vector<std::filesystem::path> writePhotos(const std::filesystem::path& folder,
                                                      int count) {
    std::vector<std::filesystem::path> files;
    for (int i = 0; i < count; ++i) {
        files.push_back(writeFile(folder / ("IMG_" + std::to_string(i) + ".jpg"),
                                  static_cast<std::size_t>(1000 + i), static_cast<char>('a' + i)));
    }
    return files;
}

/// The whole content of a file; empty when it cannot be read.
inline QByteArray contentsOf(const std::filesystem::path& path) {
    QFile file(QString::fromStdString(path.string()));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace kestrelvane::testing
