#include "KestrelvaneKit/sending/PreparedFile.h"

#include "KestrelvaneKit/intake/Checksum.h"
#include "KestrelvaneKit/intake/ExifReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kestrelvane {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwFileError(const char* what, const fs::path& path, int error) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

/// Reads up to `count` bytes at `offset`, retrying interruptions; fewer only at the end of the
/// file.
std::size_t readAt(int fd, std::uint8_t* into, std::size_t count, std::uint64_t offset,
                   const fs::path& path) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = ::pread(fd, into + done, count - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throwFileError("cannot read file", path, errno);
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

/// A few buffers of the sizes photos come in; larger ones are not kept, so
/// what the pool holds stays small next to the sending window.
std::mutex poolMutex;
std::vector<std::pair<std::unique_ptr<std::uint8_t[]>, std::size_t>> pool;
constexpr std::size_t pooledBuffers = 4;
constexpr std::size_t largestPooledBytes = 8u << 20;

} // namespace

PreparedFile::Buffer PreparedFile::Buffer::take(std::size_t atLeast) {
    {
        const std::lock_guard lock(poolMutex);
        for (auto entry = pool.begin(); entry != pool.end(); ++entry) {
            if (entry->second >= atLeast) {
                Buffer buffer{std::move(entry->first), entry->second};
                pool.erase(entry);
                return buffer;
            }
        }
    }
    return Buffer{std::make_unique_for_overwrite<std::uint8_t[]>(atLeast), atLeast};
}

void PreparedFile::Buffer::giveBack(Buffer buffer) {
    if (!buffer.bytes || buffer.capacity > largestPooledBytes) {
        return;
    }
    const std::lock_guard lock(poolMutex);
    if (pool.size() < pooledBuffers) {
        pool.emplace_back(std::move(buffer.bytes), buffer.capacity);
    } else {
        // Keep the larger buffers: they fit more of the files to come.
        auto smallest =
            std::min_element(pool.begin(), pool.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; });
        if (smallest->second < buffer.capacity) {
            *smallest = {std::move(buffer.bytes), buffer.capacity};
        }
    }
}

PreparedFile PreparedFile::prepare(const fs::path& path, MediaType type, std::stop_token stop) {
    PreparedFile file;
    file.path_ = path;
    // Non-blocking, so that a pipe put where a photo was fails below as not a
    // regular file instead of waiting for a writer that never comes; reads of
    // a regular file are unaffected.
    file.fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.fd_) {
        throwFileError("cannot open file", path, errno);
    }
    struct stat status {};
    if (::fstat(file.fd_.get(), &status) != 0) {
        throwFileError("cannot read file", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throwFileError("not a regular file", path, EINVAL);
    }

    std::uint64_t count = 0;
    if (static_cast<std::uint64_t>(status.st_size) <= wholeReadLimit) {
        // Read to the end, not to the size seen a moment ago: what is sent is
        // what was read and hashed.
        file.data_ = Buffer::take(static_cast<std::size_t>(status.st_size) + 1);
        while (true) {
            const std::size_t got = readAt(file.fd_.get(), file.data_.bytes.get() + count,
                                           file.data_.capacity - count, count, path);
            count += got;
            if (count < file.data_.capacity) {
                break;
            }
            Buffer larger = Buffer::take(file.data_.capacity * 2);
            std::memcpy(larger.bytes.get(), file.data_.bytes.get(), count);
            Buffer::giveBack(std::exchange(file.data_, std::move(larger)));
        }
        file.size_ = static_cast<std::size_t>(count);
        file.fd_.reset();
        file.header_.sha256 = Checksum::sha256Hex(ByteView(file.data_.bytes.get(), file.size_));
    } else {
        // Read front to back twice (hashing now, sending later): let the
        // kernel read ahead eagerly. Only advice, so a failure changes nothing.
        ::posix_fadvise(file.fd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
        Sha256Hasher hasher;
        Bytes chunk(streamChunkBytes);
        while (const std::size_t got =
                   readAt(file.fd_.get(), chunk.data(), chunk.size(), count, path)) {
            if (stop.stop_requested()) {
                throw StreamError::closed();
            }
            hasher.update(ByteView(chunk.data(), got));
            count += got;
        }
        file.header_.sha256 = hasher.finalizeHex();
    }

    file.header_.name = path.filename().string();
    file.header_.mediaType = type;
    file.header_.byteCount = count;
    if (type == MediaType::photo) {
        file.header_.creationDate = ExifReader::captureDate(path);
    }
    return file;
}

std::string PreparedFile::prefixSha256(std::uint64_t count) const {
    count = std::min(count, header_.byteCount);
    if (!fd_) {
        return Checksum::sha256Hex(ByteView(data_.bytes.get(), static_cast<std::size_t>(count)));
    }
    Sha256Hasher hasher;
    Bytes chunk(streamChunkBytes);
    for (std::uint64_t done = 0; done < count;) {
        const auto want =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), count - done));
        const std::size_t got = readAt(fd_.get(), chunk.data(), want, done, path_);
        if (got < want) {
            throwFileError("file shrank while it was being sent", path_, EIO);
        }
        hasher.update(ByteView(chunk.data(), got));
        done += got;
    }
    return hasher.finalizeHex();
}

PreparedFile::PreparedFile(PreparedFile&& other) noexcept
    : path_(std::move(other.path_)), header_(std::move(other.header_)),
      data_(std::move(other.data_)), size_(std::exchange(other.size_, 0)),
      fd_(std::move(other.fd_)) {
}

PreparedFile::~PreparedFile() {
    Buffer::giveBack(std::move(data_));
}

void PreparedFile::writeBytes(FrameChannel& channel, std::uint64_t from) {
    from = std::min(from, header_.byteCount);
    if (!fd_) {
        channel.sendRaw(ByteView(data_.bytes.get(), size_).subspan(static_cast<std::size_t>(from)));
        return;
    }
    Bytes chunk(streamChunkBytes);
    std::uint64_t sent = from;
    while (sent < header_.byteCount) {
        const auto want = static_cast<std::size_t>(
            std::min<std::uint64_t>(chunk.size(), header_.byteCount - sent));
        const std::size_t got = readAt(fd_.get(), chunk.data(), want, sent, path_);
        if (got < want) {
            throwFileError("file shrank while it was being sent", path_, EIO);
        }
        channel.sendRaw(ByteView(chunk.data(), got));
        sent += got;
    }
}

} // namespace kestrelvane
