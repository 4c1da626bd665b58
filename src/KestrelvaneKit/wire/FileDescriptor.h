#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <cstddef>
#include <system_error>
#include <utility>

namespace kestrelvane {

/// A failed system call as every stream and socket reports it: errno as the
/// code, "send() failed (104)" as the message.
std::system_error callError(const char* call, int code,
                            const std::error_category& category = std::generic_category());

/// Owns one POSIX descriptor and closes it exactly once. The one place that
/// knows the EINTR rule: reads and writes are retried when a signal
/// interrupts them; close() is never retried (Linux has released the number
/// even when it reports EINTR).
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    /// Hands the descriptor to the caller, who closes it.
    int release() noexcept { return std::exchange(fd_, -1); }
    /// Closes the held descriptor (if any) and holds `fd` instead.
    void reset(int fd = -1) noexcept;

    /// Writes every byte of `data` to the file `fd`. Throws callError("write()").
    static void writeAll(int fd, ByteView data);
    /// Sends every byte of `data` on the socket `fd`; a vanished peer is EPIPE,
    /// never SIGPIPE. Throws callError("send()").
    static void sendAll(int fd, ByteView data);
    /// Reads what is there, at most `into.size()` bytes; 0 at the end of the
    /// stream. Throws callError().
    static std::size_t readSome(int fd, MutableByteView into);

private:
    int fd_ = -1;
};

} // namespace kestrelvane
