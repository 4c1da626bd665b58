#include "KestrelvaneKit/session/ScratchFolder.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

namespace kestrelvane {

namespace fs = std::filesystem;

namespace {

/// An exclusive lock on `folder`'s lock file, or none when another process holds it.
FileDescriptor tryLock(const fs::path& folder) {
    FileDescriptor fd(::open((folder / ScratchFolder::lockName).c_str(),
                             O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (fd && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        return {};
    }
    return fd;
}

} // namespace

ScratchFolder::ScratchFolder() {
    std::error_code error;
    const fs::path temporary = fs::temp_directory_path(error);
    if (error) {
        throw std::system_error(error, "no temporary directory");
    }
    removeAbandoned(temporary);
    // Made and locked under a name other receivers' clean-up passes over, and
    // only then renamed into their sight: a folder named with `prefix` is
    // locked from the moment it exists, so a receiver starting at the same
    // time can never take it for abandoned. The lock, held on an open file
    // inside, survives the rename.
    std::string pattern = (temporary / (std::string(newPrefix) + "XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "cannot create " + pattern);
    }
    const fs::path made = pattern;
    lock_ = tryLock(made);
    if (!lock_) {
        const int failure = errno;
        fs::remove_all(made, error);
        throw std::system_error(failure, std::generic_category(), "cannot lock " + pattern);
    }
    const std::string suffix = made.filename().string().substr(std::string(newPrefix).size());
    path_ = temporary / (std::string(prefix) + suffix);
    if (::rename(made.c_str(), path_.c_str()) != 0) {
        const int failure = errno;
        fs::remove_all(made, error);
        throw std::system_error(failure, std::generic_category(),
                                "cannot rename " + made.string() + " to " + path_.string());
    }
}

ScratchFolder::~ScratchFolder() {
    // Out of other receivers' sight first: while its lock file is being
    // deleted, a clean-up pass would otherwise lock a new one in it.
    fs::path leaving = path_;
    leaving.replace_filename(std::string(newPrefix) +
                             path_.filename().string().substr(std::string(prefix).size()));
    std::error_code ignored;
    if (::rename(path_.c_str(), leaving.c_str()) != 0) {
        leaving = path_;
    }
    fs::remove_all(leaving, ignored);
}

int ScratchFolder::removeAbandoned(const fs::path& temporaryDirectory) {
    int removed = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(temporaryDirectory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) != 0 || !entry.is_directory(error) || entry.is_symlink(error)) {
            continue;
        }
        // Between taking the lock and removing the folder nobody can claim it:
        // a new receiver's folder only takes this name once it is locked.
        const FileDescriptor lock = tryLock(entry.path());
        if (!lock) {
            continue; // its receiver is still running
        }
        // A receiver that just ended may have renamed its folder away and
        // released the lock between our open and our lock: then the lock is
        // no longer the one in the folder of that name.
        struct stat locked {
        }, named{};
        const bool stillThere = ::fstat(lock.get(), &locked) == 0 &&
                                ::stat((entry.path() / lockName).c_str(), &named) == 0 &&
                                locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
        std::error_code ignored;
        if (stillThere && fs::remove_all(entry.path(), ignored) > 0) {
            ++removed;
        }
    }
    return removed;
}

} // namespace kestrelvane
