#include "KestrelvaneKit/usb/UsbmuxdStream.h"

#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace kestrelvane {

UsbmuxdStream::UsbmuxdStream(FileDescriptor fileDescriptor) : fd_(std::move(fileDescriptor)) {
    // Larger buffers keep file data flowing while the other side is busy;
    // failures only cost speed.
    const int size = socketBufferBytes;
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

UsbmuxdStream::~UsbmuxdStream() {
    close();
}

void UsbmuxdStream::enter() {
    const std::lock_guard lock(stateMutex_);
    if (closed_) {
        throw StreamError::closed();
    }
    ++callsInProgress_;
}

void UsbmuxdStream::leave() noexcept {
    FileDescriptor released; // closed after the lock is let go
    const std::lock_guard lock(stateMutex_);
    --callsInProgress_;
    if (closed_ && callsInProgress_ == 0) {
        released = std::move(fd_);
    }
}

bool UsbmuxdStream::isClosed() const {
    const std::lock_guard lock(stateMutex_);
    return closed_;
}

void UsbmuxdStream::send(ByteView data) {
    if (data.empty()) {
        return;
    }
    const std::lock_guard serial(sendMutex_);
    enter();
    try {
        FileDescriptor::sendAll(fd_.get(), data);
    } catch (const std::system_error&) {
        leave();
        // Writes cut off by our own close() end the stream, not the transport.
        if (isClosed()) {
            throw StreamError::closed();
        }
        throw;
    }
    leave();
}

Bytes UsbmuxdStream::receive(std::int64_t max) {
    return receiveThroughInto(max);
}

std::size_t UsbmuxdStream::receiveInto(MutableByteView into) {
    if (into.empty()) {
        throw std::invalid_argument("receive needs max of at least 1");
    }
    const std::lock_guard serial(receiveMutex_);
    for (;;) {
        enter();
        const ssize_t n = ::read(fd_.get(), into.data(), into.size());
        const int error = errno;
        leave();
        if (n > 0) {
            return static_cast<std::size_t>(n);
        }
        if (n == 0) {
            throw StreamError::closed();
        }
        if (error != EINTR) {
            if (isClosed()) {
                throw StreamError::closed();
            }
            throw callError("read()", error);
        }
    }
}

void UsbmuxdStream::close() noexcept {
    FileDescriptor released; // closed after the lock is let go
    const std::lock_guard lock(stateMutex_);
    if (closed_) {
        return;
    }
    closed_ = true;
    if (callsInProgress_ == 0) {
        released = std::move(fd_);
    } else {
        // Wakes the blocked call; it releases the descriptor when it leaves.
        ::shutdown(fd_.get(), SHUT_RDWR);
    }
}

} // namespace kestrelvane
