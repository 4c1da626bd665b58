#include "KestrelvaneKit/network/PrivateFolder.h"

#include "KestrelvaneKit/network/DeviceIdentity.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrelvane {
namespace {

std::string reason() {
    return std::strerror(errno);
}

/// What is wrong with `status` for a private file or folder, or nothing.
std::optional<std::string> flaw(const struct stat& status, bool folder) {
    if (folder ? !S_ISDIR(status.st_mode) : !S_ISREG(status.st_mode)) {
        return folder ? "not a folder" : "not a regular file";
    }
    if (status.st_uid != ::geteuid()) {
        return "owned by another user";
    }
    const mode_t others = folder ? 022 : 077;
    if ((status.st_mode & others) != 0) {
        return std::string("others may ") + (folder ? "change it" : "read or change it") +
               "; run chmod " + (folder ? "700" : "600") + " on it";
    }
    return std::nullopt;
}

} // namespace

PrivateFolder::PrivateFolder(std::filesystem::path path) : path_(std::move(path)) {
    std::error_code ignored; // a parent that cannot be made shows up as the open's error
    std::filesystem::create_directories(path_.parent_path(), ignored);
    if (::mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) {
        fail("", reason());
    }
    folder_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!folder_ || ::fstat(folder_.get(), &status) != 0) {
        fail("", errno == ELOOP || errno == ENOTDIR ? "not a folder" : reason());
    }
    if (const auto wrong = flaw(status, true)) {
        fail("", *wrong);
    }
}

std::optional<std::string> PrivateFolder::read(const std::string& name) const {
    const FileDescriptor file(
        ::openat(folder_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        return std::nullopt;
    }
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        fail(name, errno == ELOOP ? "not a regular file" : reason());
    }
    if (const auto wrong = flaw(status, false)) {
        fail(name, *wrong);
    }
    std::string text;
    char buffer[4096];
    while (const std::size_t count = FileDescriptor::readSome(
               file.get(), {reinterpret_cast<std::uint8_t*>(buffer), sizeof buffer})) {
        text.append(buffer, count);
    }
    return text;
}

bool PrivateFolder::write(const std::string& name, const std::string& text, bool replace) const {
    std::string temporary;
    FileDescriptor file;
    for (int attempt = 0; !file; ++attempt) {
        char random[16];
        std::snprintf(random, sizeof random, "%08x", static_cast<unsigned>(::arc4random()));
        temporary = "." + name + "." + random;
        file.reset(::openat(folder_.get(), temporary.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file && (errno != EEXIST || attempt == 100)) {
            fail(temporary, reason());
        }
    }
    bool placed = true;
    try {
        FileDescriptor::writeAll(file.get(),
                                 {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
        if (::fsync(file.get()) != 0) {
            fail(temporary, reason());
        }
        const int moved =
            replace ? ::renameat(folder_.get(), temporary.c_str(), folder_.get(), name.c_str())
                    : ::linkat(folder_.get(), temporary.c_str(), folder_.get(), name.c_str(), 0);
        if (moved != 0) {
            if (replace || errno != EEXIST) {
                fail(name, reason());
            }
            placed = false;
        }
    } catch (...) {
        ::unlinkat(folder_.get(), temporary.c_str(), 0);
        throw;
    }
    if (!replace) {
        ::unlinkat(folder_.get(), temporary.c_str(), 0);
    }
    ::fsync(folder_.get());
    return placed;
}

FileDescriptor PrivateFolder::lock(const std::string& name) const {
    FileDescriptor file(
        ::openat(folder_.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file || ::flock(file.get(), LOCK_EX) != 0) {
        fail(name, reason());
    }
    return file;
}

void PrivateFolder::fail(const std::string& name, const std::string& what) const {
    throw IdentityError((name.empty() ? path_ : path_ / name).string() + ": " + what);
}

} // namespace kestrelvane
