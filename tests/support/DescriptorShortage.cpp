#include "support/DescriptorShortage.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace kestrelvane::testing {

DescriptorShortage::DescriptorShortage() {
    if (::getrlimit(RLIMIT_NOFILE, &original_) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit(RLIMIT_NOFILE)");
    }
    rlimit low = original_;
    low.rlim_cur = std::min<rlim_t>(original_.rlim_cur, 256);
    if (::setrlimit(RLIMIT_NOFILE, &low) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit(RLIMIT_NOFILE)");
    }
    const int source = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (source < 0) {
        ::setrlimit(RLIMIT_NOFILE, &original_);
        return; // nothing left to take already
    }
    taken_.push_back(source);
    for (int fd; (fd = ::fcntl(source, F_DUPFD_CLOEXEC, 0)) >= 0;) {
        taken_.push_back(fd);
    }
}

DescriptorShortage::~DescriptorShortage() {
    for (const int fd : taken_) {
        ::close(fd);
    }
    ::setrlimit(RLIMIT_NOFILE, &original_);
}

} // namespace kestrelvane::testing
