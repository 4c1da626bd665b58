#include "support/FileSizeLimit.h"

#include <cerrno>
#include <csignal>
#include <system_error>

namespace kestrelvane::testing {

FileSizeLimit::FileSizeLimit(std::uint64_t bytes) {
    if (::getrlimit(RLIMIT_FSIZE, &previous_) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit(RLIMIT_FSIZE)");
    }
    previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = previous_;
    limited.rlim_cur = static_cast<rlim_t>(bytes);
    if (::setrlimit(RLIMIT_FSIZE, &limited) != 0) {
        std::signal(SIGXFSZ, previousHandler_);
        throw std::system_error(errno, std::generic_category(), "setrlimit(RLIMIT_FSIZE)");
    }
}

FileSizeLimit::~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &previous_);
    std::signal(SIGXFSZ, previousHandler_);
}

} // namespace kestrelvane::testing
