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
    std::atomic<int> remaining{0};
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
    if (state.remaining.fetch_sub(1) <= 0) {
        return 0;
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

// The linker sends every call of these functions to __wrap_name (--wrap), and
// __real_name to the C library's own. fsync looks at its descriptor's type.
#define KV_WRAP(result, name, fd, parameters, ...)                                                 \
    result __real_##name parameters;                                                               \
    result __wrap_##name parameters {                                                              \
        using kestrelvane::testing::SystemCallFault;                                               \
        if (const int error = kestrelvane::testing::errorFor(SystemCallFault::Call::name, fd)) {   \
            errno = error;                                                                         \
            return -1;                                                                             \
        }                                                                                          \
        return __real_##name(__VA_ARGS__);                                                         \
    }

extern "C" {
KV_WRAP(int, fsync, fd, (int fd), fd)
KV_WRAP(int, chmod, -1, (const char* path, mode_t mode), path, mode)
KV_WRAP(int, utimensat, -1,
        (int dirfd, const char* path, const struct timespec times[2], int flags), dirfd, path,
        times, flags)
KV_WRAP(int, socket, -1, (int domain, int type, int protocol), domain, type, protocol)
KV_WRAP(int, poll, -1, (struct pollfd * fds, nfds_t count, int timeout), fds, count, timeout)
KV_WRAP(int, accept4, -1, (int fd, struct sockaddr* address, socklen_t* length, int flags), fd,
        address, length, flags)
KV_WRAP(ssize_t, send, -1, (int fd, const void* data, size_t size, int flags), fd, data, size,
        flags)
KV_WRAP(ssize_t, recv, -1, (int fd, void* data, size_t size, int flags), fd, data, size, flags)
KV_WRAP(ssize_t, read, -1, (int fd, void* data, size_t size), fd, data, size)
KV_WRAP(ssize_t, pread, -1, (int fd, void* data, size_t size, off_t offset), fd, data, size, offset)
KV_WRAP(int, fstat, -1, (int fd, struct stat* status), fd, status)
KV_WRAP(int, getsockopt, -1, (int fd, int level, int name, void* value, socklen_t* length), fd,
        level, name, value, length)
}
