#include "KestrelvaneKit/receiving/FolderSaver.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <iterator>
#include <stdio.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void syncPath(const fs::path& path, int flags) {
    const FileDescriptor descriptor(::open(path.c_str(), flags | O_CLOEXEC));
    if (!descriptor || ::fsync(descriptor.get()) != 0) {
        throwErrno("cannot sync " + path.string());
    }
}

void syncFolder(const fs::path& folder) {
    syncPath(folder, O_RDONLY | O_DIRECTORY);
}

/// Copies `from` into a new file `to`, synced; removes `to` again on failure.
void copyDurably(const fs::path& from, const fs::path& to) {
    const FileDescriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) {
        throwErrno("cannot read " + from.string());
    }
    const FileDescriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!out) {
        throwErrno("cannot create " + to.string());
    }
    try {
        std::array<std::uint8_t, 1 << 16> buffer{};
        for (;;) {
            std::size_t got = 0;
            try {
                got = FileDescriptor::readSome(in.get(), buffer);
            } catch (const std::system_error& error) {
                throw std::system_error(error.code(), "cannot read " + from.string());
            }
            if (got == 0) {
                break;
            }
            try {
                FileDescriptor::writeAll(out.get(), ByteView(buffer.data(), got));
            } catch (const std::system_error& error) {
                throw std::system_error(error.code(), "cannot write " + to.string());
            }
        }
        if (::fsync(out.get()) != 0) {
            throwErrno("cannot sync " + to.string());
        }
    } catch (...) {
        std::error_code ignored;
        fs::remove(to, ignored);
        throw;
    }
}

/// Renames without ever replacing an existing file: EEXIST when `to` exists.
int renameNoReplace(const fs::path& from, const fs::path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // File systems without RENAME_NOREPLACE: link() never replaces either.
    if (::link(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    ::unlink(from.c_str());
    return 0;
}

/// Whether `existing` already holds the file `header` describes: same size and
/// same SHA-256. Anything that cannot be read counts as different.
bool holdsSameFile(const fs::path& existing, const FileHeader& header) {
    std::error_code error;
    if (!fs::is_regular_file(fs::symlink_status(existing, error)) ||
        fs::file_size(existing, error) != header.byteCount || error) {
        return false;
    }
    try {
        return Checksum::sha256HexOfFile(existing) == header.sha256;
    } catch (const std::exception&) {
        return false;
    }
}

/// "IMG_1.jpg", then "IMG_1 (1).jpg", "IMG_1 (2).jpg", ...
fs::path candidate(const fs::path& folder, const std::string& name, int attempt) {
    if (attempt == 0) {
        return folder / name;
    }
    const fs::path original(name);
    const std::string stem = original.stem().string();
    const std::string extension = original.extension().string();
    return folder / (stem + " (" + std::to_string(attempt) + ")" + extension);
}

/// A hidden name of fixed length: one built from the file's name would be
/// too long for the file system whenever that name is close to the limit.
std::string hiddenPartialName() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_lower(uuid, text);
    return std::string(".kestrelvane-") + text + ".partial";
}

/// Whether `name` is a single, ordinary path component: not empty, not "."
/// or "..", no "/" and no NUL.
bool isSafeComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

void setModificationTime(const fs::path& file, Timestamp time) {
    using namespace std::chrono;
    const auto since = time.time_since_epoch();
    const auto secondsPart = floor<seconds>(since);
    const std::array<timespec, 2> times{
        timespec{0, UTIME_OMIT},
        timespec{static_cast<time_t>(secondsPart.count()),
                 static_cast<long>(duration_cast<nanoseconds>(since - secondsPart).count())}};
    if (::utimensat(AT_FDCWD, file.c_str(), times.data(), 0) != 0) {
        throwErrno("cannot set the date of " + file.string());
    }
}

} // namespace

FolderSaver::FolderSaver(fs::path root)
    : root_(std::move(root)), saver_([this] { saveWaiting(); }) {
}

FolderSaver::~FolderSaver() {
    stopSaving();
}

void FolderSaver::begin(const SessionHeader& session) {
    album_ = session.albumName;
    albumRefused_ = album_ && !isSafeComponent(*album_);
}

bool FolderSaver::holds(const FileHeader& header) {
    if (albumRefused_ || !isSafeComponent(header.name)) {
        return false;
    }
    return holdsSameFile((album_ ? root_ / *album_ : root_) / header.name, header);
}

void FolderSaver::enqueue(const fs::path& file, const FileHeader& header) {
    {
        const std::lock_guard lock(mutex_);
        if (!stopping_) {
            waiting_.push_back({file, header});
            changed_.notify_one();
            return;
        }
    }
    // After the session's flush there is no saving thread; the file still
    // gets its outcome (which a finished queue drops).
    std::vector<Waiting> group{{file, header}};
    saveGroup(group);
}

void FolderSaver::flushAndDrain() {
    stopSaving();
    outcomes_.finish();
}

void FolderSaver::stopSaving() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (saver_.joinable()) {
        saver_.join();
    }
}

// Files that arrive while a group is being flushed wait and form the next
// group, so the groups grow with the rate files come in.
void FolderSaver::saveWaiting() {
    while (true) {
        std::vector<Waiting> group;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !waiting_.empty() || stopping_; });
            if (waiting_.empty()) {
                return;
            }
            const auto end = waiting_.begin() +
                             static_cast<std::ptrdiff_t>(std::min(waiting_.size(), maxGroupFiles));
            group.assign(std::make_move_iterator(waiting_.begin()), std::make_move_iterator(end));
            waiting_.erase(waiting_.begin(), end);
        }
        saveGroup(group);
    }
}

namespace {

void fail(BatchOutcome& outcome) {
    outcome.status = Ack::Status::error;
    try {
        throw;
    } catch (const std::system_error& error) {
        outcome.message = error.code().message();
    } catch (const std::exception& error) {
        outcome.message = error.what();
    } catch (...) {
        outcome.message = "unknown error";
    }
}

bool failed(const BatchOutcome& outcome) {
    return outcome.status == Ack::Status::error;
}

/// Gives `staged` the first free name for `name` in `folder`, never replacing
/// a file; across file systems it is copied in (durably) under a hidden name
/// first. Returns the name it got.
fs::path place(const fs::path& staged, const fs::path& folder, const FileHeader& header) {
    fs::path from = staged;
    bool copied = false;
    try {
        for (int attempt = 0; attempt < FolderSaver::maxNameAttempts; ++attempt) {
            const fs::path target = candidate(folder, header.name, attempt);
            const int error = renameNoReplace(from, target);
            if (error == 0) {
                return target;
            }
            if (error == EXDEV && !copied) {
                from = folder / hiddenPartialName();
                copyDurably(staged, from);
                copied = true;
                if (header.creationDate) {
                    setModificationTime(from, *header.creationDate);
                }
                --attempt;
                continue;
            }
            if (error != EEXIST) {
                errno = error;
                throwErrno("cannot save " + target.string());
            }
            if (holdsSameFile(target, header)) {
                // A resend of a file saved before its acknowledgement was lost.
                // Its saver may have died before syncing it.
                syncPath(target, O_RDONLY);
                syncFolder(folder);
                if (copied) {
                    // The copy made for it is not needed; the received file
                    // itself is removed with the rest of the group.
                    std::error_code ignored;
                    fs::remove(from, ignored);
                }
                return target;
            }
        }
        errno = EEXIST;
        throwErrno("no free name for " + header.name);
    } catch (...) {
        if (copied) {
            std::error_code ignored;
            fs::remove(from, ignored);
        }
        throw;
    }
}

} // namespace

// A file's final name appears only once its data is durable, and its outcome
// is published only once that name is durable too: a crash at any point
// leaves each file either whole under its name or absent and unacknowledged.
void FolderSaver::saveGroup(std::vector<Waiting>& group) {
    std::vector<BatchOutcome> outcomes;
    outcomes.reserve(group.size());
    for (const Waiting& waiting : group) {
        outcomes.push_back(BatchOutcome{.name = waiting.header.name});
    }

    fs::path folder = root_;
    if (album_) {
        folder /= *album_;
    }
    bool folderReady = false;

    // Mode, date, and writeback started for every file before any is waited on.
    std::vector<FileDescriptor> open(group.size());
    for (std::size_t i = 0; i < group.size(); ++i) {
        const Waiting& waiting = group[i];
        try {
            if (albumRefused_) {
                throw std::runtime_error("refused unsafe album name");
            }
            if (!isSafeComponent(waiting.header.name)) {
                throw std::runtime_error("refused unsafe file name");
            }
            if (album_ && !folderReady) {
                std::error_code error;
                if (fs::create_directory(folder, error)) {
                    syncFolder(root_);
                } else if (error) {
                    throw std::system_error(error, "cannot create " + folder.string());
                }
            }
            folderReady = true;
            // The temporary file is private to this user; a saved photo is not.
            if (::chmod(waiting.file.c_str(), 0644) != 0) {
                throwErrno("cannot set the mode of " + waiting.file.string());
            }
            if (waiting.header.creationDate) {
                setModificationTime(waiting.file, *waiting.header.creationDate);
            }
            open[i].reset(::open(waiting.file.c_str(), O_RDONLY | O_CLOEXEC));
            if (!open[i]) {
                throwErrno("cannot sync " + waiting.file.string());
            }
            ::sync_file_range(open[i].get(), 0, 0, SYNC_FILE_RANGE_WRITE);
        } catch (...) {
            fail(outcomes[i]);
        }
    }
    for (std::size_t i = 0; i < group.size(); ++i) {
        if (!failed(outcomes[i]) && ::fsync(open[i].get()) != 0) {
            outcomes[i].status = Ack::Status::error;
            outcomes[i].message = std::generic_category().message(errno);
        }
        open[i].reset();
    }

    bool placedAny = false;
    for (std::size_t i = 0; i < group.size(); ++i) {
        if (failed(outcomes[i])) {
            continue;
        }
        try {
            place(group[i].file, folder, group[i].header);
            placedAny = true;
        } catch (...) {
            fail(outcomes[i]);
        }
    }
    if (placedAny) {
        try {
            syncFolder(folder);
        } catch (...) {
            // Named but not durably: none of them may be reported saved.
            for (BatchOutcome& outcome : outcomes) {
                if (!failed(outcome)) {
                    fail(outcome);
                }
            }
        }
    }

    for (std::size_t i = 0; i < group.size(); ++i) {
        std::error_code ignored;
        fs::remove(group[i].file, ignored); // gone already when it was moved
        outcomes_.publish(std::move(outcomes[i]));
    }
}

} // namespace kestrelvane
