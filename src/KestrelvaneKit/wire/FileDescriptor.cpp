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

void FileDescriptor::writeAll(int fd, ByteView data) {
    while (!data.empty()) {
        ssize_t written = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        const char* call = "send()";
        if (written < 0 && errno == ENOTSOCK) {
            written = ::write(fd, data.data(), data.size());
            call = "write()";
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw callError(call, written == 0 ? EPIPE : errno);
        }
        data = data.subspan(static_cast<std::size_t>(written));
    }
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
