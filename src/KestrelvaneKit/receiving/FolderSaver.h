#pragma once

#include "KestrelvaneKit/receiving/BatchSaving.h"

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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
///
/// Saving runs on a thread of its own, so enqueue() returns at once. That
/// thread takes every file waiting at the time as one group: syncs their data,
/// gives them their names, syncs each folder once and only then reports the
/// group, in the order the files came. A flush per group instead of per file
/// is what lets many small photos land at the rate they arrive.
class FolderSaver final : public BatchSaving {
public:
    explicit FolderSaver(std::filesystem::path root);
    /// Saves what is still waiting and joins the saving thread.
    ~FolderSaver() override;

    void begin(const SessionHeader& session) override;
    void enqueue(const std::filesystem::path& file, const FileHeader& header) override;
    void flushAndDrain() override;
    bool holds(const FileHeader& header) override;
    AsyncQueue<BatchOutcome>& outcomes() override { return outcomes_; }

    /// A group holds one open descriptor per file, so it is kept well under
    /// the usual limit of 1,024; a longer line is saved in several groups.
    static constexpr std::size_t maxGroupFiles = 256;

    /// "IMG_1.jpg" and then "IMG_1 (1).jpg" up to "IMG_1 (9999).jpg": past
    /// that the file fails (EEXIST) rather than search for ever.
    static constexpr int maxNameAttempts = 10'000;

private:
    struct Waiting {
        std::filesystem::path file;
        FileHeader header;
    };

    void saveWaiting();
    void saveGroup(std::vector<Waiting>& group);
    void stopSaving();

    const std::filesystem::path root_;
    std::optional<std::string> album_; // set by begin(), before the first enqueue
    bool albumRefused_ = false;
    AsyncQueue<BatchOutcome> outcomes_;

    std::mutex mutex_; // guards the three below
    std::condition_variable changed_;
    std::vector<Waiting> waiting_;
    bool stopping_ = false;
    std::thread saver_; // last: started once everything above exists
};

} // namespace kestrelvane
