#pragma once

#include <cstdint>
#include <sys/resource.h>

namespace kestrelvane::testing {

/// While alive, no file of this process can grow beyond `bytes`: a write
/// past it fails with EFBIG, as writes fail on a full disk, without needing a
/// small file system (which unprivileged users cannot mount). SIGXFSZ, which
/// would otherwise end the process, is ignored meanwhile.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uint64_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit previous_{};
    void (*previousHandler_)(int) = nullptr;
};

} // namespace kestrelvane::testing
