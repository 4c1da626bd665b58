#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace kestrelvane {

/// Stores received files in a folder on this machine: `root`, or `root/ALBUM`
/// when the session names an album.
///
/// A file is never overwritten ("IMG_1.jpg" becomes "IMG_1 (1).jpg"), except
/// that a file already there under one of those names with the same size and
/// SHA-256 counts as saved: a sender whose acknowledgement was lost sends the
/// file again, and must not leave a second copy. A saved file gets its
/// capture date as modification time, and is durable (file and folder synced)
/// before it is reported saved. It appears in the folder whole or not at all:
/// across file systems it is copied under a hidden partial name first. Names
/// and albums that could reach outside `root` are refused with an error outcome.
class FolderSaver final : public BatchSaving {
public:
    explicit FolderSaver(std::filesystem::path root);

    void begin(const SessionHeader& session) override;
    void enqueue(const std::filesystem::path& file, const FileHeader& header) override;
    void flushAndDrain() override;
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

    /// Whether `name` is a single, ordinary path component: not empty, not "."
    /// or "..", no "/" and no NUL.
    static bool isSafeComponent(const std::string& name);

private:
    /// Saves `file` and returns where it went; throws std::system_error.
    std::filesystem::path save(const std::filesystem::path& file, const FileHeader& header);

    const std::filesystem::path root_;
    std::optional<std::string> album_;
    bool albumRefused_ = false;
    AsyncQueue<BatchOutcome> outcomes_;
};

} // namespace kestrelvane
