#pragma once

#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <filesystem>

namespace kestrelvane {

/// The receiver's own folder for files still arriving, under the system's
/// temporary directory ("kestrelvane-receive.XXXXXX"), held with a lock for
/// as long as the receiver runs.
///
/// A receiver that is killed cannot delete its half-received files; the
/// kernel does drop its lock, though. So each new receiver first removes the
/// scratch folders whose lock nobody holds (their owner died) and leaves
/// those of receivers still running alone.
class ScratchFolder {
public:
    /// Throws std::system_error when no folder can be made.
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

    /// Removes the scratch folders of receivers that are gone; returns how many.
    static int removeAbandoned(const std::filesystem::path& temporaryDirectory);

    static constexpr const char* prefix = "kestrelvane-receive.";
    /// A folder being made or removed, out of clean-up passes' sight
    /// ("kestrelvane-receive-new.XXXXXX").
    static constexpr const char* newPrefix = "kestrelvane-receive-new.";
    static constexpr const char* lockName = ".lock";

private:
    std::filesystem::path path_;
    FileDescriptor lock_; // held until the folder is gone
};

} // namespace kestrelvane
