#pragma once

#include <filesystem>

namespace kestrelvane::testing {

/// A fresh, empty folder under the system's temporary directory, removed with
/// everything in it when the object goes.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace kestrelvane::testing
