#include "KestrelvaneKit/receiving/FolderSaver.h"

#include "KestrelvaneKit/intake/Checksum.h"

#include <uuid/uuid.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
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

/// A descriptor closed on every path.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

void syncPath(const fs::path& path, int flags) {
    const Descriptor descriptor(::open(path.c_str(), flags | O_CLOEXEC));
    if (descriptor.get() < 0 || ::fsync(descriptor.get()) != 0) {
        throwErrno("cannot sync " + path.string());
    }
}

void syncFolder(const fs::path& folder) {
    syncPath(folder, O_RDONLY | O_DIRECTORY);
}

/// Copies `from` into a new file `to`, synced; removes `to` again on failure.
void copyDurably(const fs::path& from, const fs::path& to) {
    const Descriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        throwErrno("cannot read " + from.string());
    }
    const Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (out.get() < 0) {
        throwErrno("cannot create " + to.string());
    }
    try {
        std::array<char, 1 << 16> buffer{};
        while (true) {
            const ssize_t got = ::read(in.get(), buffer.data(), buffer.size());
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                throwErrno("cannot read " + from.string());
            }
            if (got == 0) {
                break;
            }
            for (ssize_t done = 0; done < got;) {
                const ssize_t put =
                    ::write(out.get(), buffer.data() + done, static_cast<std::size_t>(got - done));
                if (put < 0 && errno == EINTR) {
                    continue;
                }
                if (put < 0) {
                    throwErrno("cannot write " + to.string());
                }
                done += put;
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

constexpr int maxNameAttempts = 10'000;

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

std::string hiddenPartialName(const std::string& name) {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_lower(uuid, text);
    return "." + name + "." + text + ".partial";
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

FolderSaver::FolderSaver(fs::path root) : root_(std::move(root)) {
}

bool FolderSaver::isSafeComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

void FolderSaver::begin(const SessionHeader& session) {
    album_ = session.albumName;
    albumRefused_ = album_ && !isSafeComponent(*album_);
}

void FolderSaver::enqueue(const fs::path& file, const FileHeader& header) {
    BatchOutcome outcome{.name = header.name};
    try {
        if (albumRefused_) {
            throw std::runtime_error("refused unsafe album name");
        }
        if (!isSafeComponent(header.name)) {
            throw std::runtime_error("refused unsafe file name");
        }
        save(file, header);
    } catch (const std::system_error& error) {
        outcome.status = Ack::Status::error;
        outcome.message = error.code().message();
    } catch (const std::exception& error) {
        outcome.status = Ack::Status::error;
        outcome.message = error.what();
    }
    std::error_code ignored;
    fs::remove(file, ignored); // gone already when it was moved
    outcomes_.publish(std::move(outcome));
}

fs::path FolderSaver::save(const fs::path& file, const FileHeader& header) {
    fs::path folder = root_;
    if (album_) {
        folder /= *album_;
        std::error_code error;
        if (fs::create_directory(folder, error)) {
            syncFolder(root_);
        } else if (error) {
            throw std::system_error(error, "cannot create " + folder.string());
        }
    }

    // Everything that can fail happens before the file takes its final name.
    fs::path staged = file;
    bool copied = false;
    // The temporary file is private to this user; a saved photo is not.
    if (::chmod(file.c_str(), 0644) != 0) {
        throwErrno("cannot set the mode of " + file.string());
    }
    if (header.creationDate) {
        setModificationTime(file, *header.creationDate);
    }
    syncPath(file, O_RDONLY);
    try {
        for (int attempt = 0; attempt < maxNameAttempts; ++attempt) {
            const fs::path target = candidate(folder, header.name, attempt);
            const int error = renameNoReplace(staged, target);
            if (error == 0) {
                syncFolder(folder);
                return target;
            }
            if (error == EXDEV && !copied) {
                // Another file system: copy in under a hidden name, then rename.
                staged = folder / hiddenPartialName(header.name);
                copyDurably(file, staged);
                copied = true;
                if (header.creationDate) {
                    setModificationTime(staged, *header.creationDate);
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
                    std::error_code ignored;
                    fs::remove(staged, ignored);
                }
                return target;
            }
        }
        errno = EEXIST;
        throwErrno("no free name for " + header.name);
    } catch (...) {
        if (copied) {
            std::error_code ignored;
            fs::remove(staged, ignored);
        }
        throw;
    }
}

void FolderSaver::flushAndDrain() {
    outcomes_.finish();
}

} // namespace kestrelvane
