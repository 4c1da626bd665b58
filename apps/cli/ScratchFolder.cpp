#include "ScratchFolder.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane::cli {

namespace fs = std::filesystem;

namespace {

/// An exclusive lock on `folder`'s lock file, or -1 when another process holds it.
int tryLock(const fs::path& folder) {
    const int fd = ::open((folder / ScratchFolder::lockName).c_str(),
                          O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return -1;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return -1;
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
    std::string pattern = (temporary / (std::string(prefix) + "XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "cannot create " + pattern);
    }
    path_ = pattern;
    lock_ = tryLock(path_);
    if (lock_ < 0) {
        const int failure = errno;
        fs::remove_all(path_, error);
        throw std::system_error(failure, std::generic_category(), "cannot lock " + pattern);
    }
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    ::close(lock_);
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
        // a new receiver makes a folder of its own.
        const int lock = tryLock(entry.path());
        if (lock < 0) {
            continue; // its receiver is still running
        }
        std::error_code ignored;
        fs::remove_all(entry.path(), ignored);
        ::close(lock);
        ++removed;
    }
    return removed;
}

} // namespace kestrelvane::cli
