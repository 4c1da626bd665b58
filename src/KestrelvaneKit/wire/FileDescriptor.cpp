#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <cerrno>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane {

std::system_error callError(const char* call, int code, const std::error_category& category) {
    return std::system_error(code, category,
                             std::string(call) + " failed (" + std::to_string(code) + ")");
}

void FileDescriptor::reset(int fd) noexcept {
    if (fd_ >= 0 && fd_ != fd) {
        ::close(fd_);
    }
    fd_ = fd;
}

namespace {

/// Calls `put` until every byte is taken, retrying EINTR; a call that takes
/// nothing is EPIPE.
template <class Put> void putAll(ByteView data, const char* call, const Put& put) {
    while (!data.empty()) {
        const ssize_t written = put(data);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw callError(call, written == 0 ? EPIPE : errno);
        }
        data = data.subspan(static_cast<std::size_t>(written));
    }
}

} // namespace

void FileDescriptor::writeAll(int fd, ByteView data) {
    putAll(data, "write()", [fd](ByteView rest) { return ::write(fd, rest.data(), rest.size()); });
}

void FileDescriptor::sendAll(int fd, ByteView data) {
    putAll(data, "send()",
           [fd](ByteView rest) { return ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL); });
}

std::size_t FileDescriptor::readSome(int fd, MutableByteView into) {
    for (;;) {
        const ssize_t count = ::read(fd, into.data(), into.size());
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR) {
            throw callError("read()", errno);
        }
    }
}

} // namespace kestrelvane
