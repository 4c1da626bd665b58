#include "support/SystemCallFault.h"

#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" int __real_fstat(int fd, struct stat* status);

namespace kestrelvane::testing {
namespace {

struct Armed {
    std::atomic<int> error{0}; // 0: not armed
    std::atomic<SystemCallFault::Target> target{SystemCallFault::Target::any};
    std::atomic<int> remaining{SystemCallFault::always};
    std::atomic<int> failures{0};
};

Armed armed[12];

Armed& slot(SystemCallFault::Call call) {
    return armed[static_cast<int>(call)];
}

/// The error to fail with, or 0 to let the call through.
int errorFor(SystemCallFault::Call call, int fd = -1) {
    Armed& state = slot(call);
    const int error = state.error.load();
    if (error == 0) {
        return 0;
    }
    if (fd >= 0 && state.target.load() != SystemCallFault::Target::any) {
        struct stat status {};
        if (__real_fstat(fd, &status) != 0 ||
            S_ISDIR(status.st_mode) != (state.target.load() == SystemCallFault::Target::folders)) {
            return 0;
        }
    }
    for (int left = state.remaining.load(); left != SystemCallFault::always;) {
        if (left == 0) {
            return 0;
        }
        if (state.remaining.compare_exchange_weak(left, left - 1)) {
            break;
        }
    }
    ++state.failures;
    return error;
}

} // namespace

SystemCallFault::SystemCallFault(Call call, int error, Target target, int times) : call_(call) {
    slot(call).target = target;
    slot(call).remaining = times;
    slot(call).error = error;
}

SystemCallFault::~SystemCallFault() {
    slot(call_).error = 0;
}

int SystemCallFault::failures(Call call) {
    return slot(call).failures.load();
}

} // namespace kestrelvane::testing

// The linker sends every call of these functions here (--wrap), and
// __real_* to the C library's own.
extern "C" {
int __real_fsync(int fd);
int __real_socket(int domain, int type, int protocol);
int __real_poll(struct pollfd* fds, nfds_t count, int timeout);
int __real_accept4(int fd, struct sockaddr* address, socklen_t* length, int flags);
ssize_t __real_send(int fd, const void* data, size_t size, int flags);
ssize_t __real_recv(int fd, void* data, size_t size, int flags);
ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __real_pread(int fd, void* data, size_t size, off_t offset);
int __real_getsockopt(int fd, int level, int name, void* value, socklen_t* length);
int __real_chmod(const char* path, mode_t mode);
int __real_utimensat(int dirfd, const char* path, const struct timespec times[2], int flags);

int __wrap_fsync(int fd) {
    using kestrelvane::testing::SystemCallFault;
    if (const int error = kestrelvane::testing::errorFor(SystemCallFault::Call::fsync, fd)) {
        errno = error;
        return -1;
    }
    return __real_fsync(fd);
}

#define KV_FAIL_OR_CALL(name, ...)                                                                 \
    using kestrelvane::testing::SystemCallFault;                                                   \
    if (const int error = kestrelvane::testing::errorFor(SystemCallFault::Call::name)) {           \
        errno = error;                                                                             \
        return -1;                                                                                 \
    }                                                                                              \
    return __real_##name(__VA_ARGS__)

int __wrap_chmod(const char* path, mode_t mode) {
    KV_FAIL_OR_CALL(chmod, path, mode);
}
int __wrap_utimensat(int dirfd, const char* path, const struct timespec times[2], int flags) {
    KV_FAIL_OR_CALL(utimensat, dirfd, path, times, flags);
}
int __wrap_socket(int domain, int type, int protocol) {
    KV_FAIL_OR_CALL(socket, domain, type, protocol);
}
int __wrap_poll(struct pollfd* fds, nfds_t count, int timeout) {
    KV_FAIL_OR_CALL(poll, fds, count, timeout);
}
int __wrap_accept4(int fd, struct sockaddr* address, socklen_t* length, int flags) {
    KV_FAIL_OR_CALL(accept4, fd, address, length, flags);
}
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    KV_FAIL_OR_CALL(send, fd, data, size, flags);
}
ssize_t __wrap_recv(int fd, void* data, size_t size, int flags) {
    KV_FAIL_OR_CALL(recv, fd, data, size, flags);
}
ssize_t __wrap_read(int fd, void* data, size_t size) {
    KV_FAIL_OR_CALL(read, fd, data, size);
}
ssize_t __wrap_pread(int fd, void* data, size_t size, off_t offset) {
    KV_FAIL_OR_CALL(pread, fd, data, size, offset);
}
int __wrap_fstat(int fd, struct stat* status) {
    KV_FAIL_OR_CALL(fstat, fd, status);
}
int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* length) {
    KV_FAIL_OR_CALL(getsockopt, fd, level, name, value, length);
}
}
