#include "KestrelvaneKit/network/TcpConnection.h"

#include <cerrno>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace kestrelvane {
namespace {

/// Errors after which the network may yet come: the connection waits and retries.
bool isTransient(const std::system_error& error) {
    if (error.code().category() == TcpConnection::resolverCategory()) {
        return error.code().value() == EAI_AGAIN;
    }
    const int code = error.code().value();
    return code == ENETUNREACH || code == ENETDOWN || code == EHOSTUNREACH;
}

class ResolverCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "getaddrinfo"; }
    std::string message(int code) const override { return gai_strerror(code); }
};

void setNoDelay(int fd) {
    // Acknowledgements are small frames; Nagle's algorithm would hold them back.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void setKeepAlive(int fd) {
    // A peer that vanishes (switched off, out of range) sends no reset; probes
    // after 30 s of silence, 3 unanswered 10 s apart, turn that into an error
    // for a thread waiting in recv() instead of a wait without end.
    const int on = 1;
    const int idleSeconds = 30;
    const int intervalSeconds = 10;
    const int probes = 3;
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof intervalSeconds);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

} // namespace

const std::error_category& TcpConnection::resolverCategory() noexcept {
    static const ResolverCategory category;
    return category;
}

TcpConnection::TcpConnection(std::string host, std::uint16_t port)
    : host_(std::move(host)), port_(port), wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wakeFd_) {
        throw callError("eventfd()", errno);
    }
}

TcpConnection::TcpConnection(FileDescriptor connectedSocket)
    : accepted_(true), socket_(std::move(connectedSocket)) {
    if (!socket_) {
        throw std::invalid_argument("TcpConnection needs a connected socket");
    }
    setNoDelay(socket_.get());
    setKeepAlive(socket_.get());
}

void TcpConnection::setIdleTimeout(std::chrono::milliseconds timeout) {
    if (timeout.count() < 0) {
        throw std::invalid_argument("an idle timeout cannot be negative");
    }
    std::lock_guard lock(mutex_);
    idleTimeout_ = timeout;
    applyIdleTimeoutLocked();
}

std::chrono::milliseconds TcpConnection::idleTimeout() const {
    std::lock_guard lock(mutex_);
    return idleTimeout_;
}

void TcpConnection::applyIdleTimeoutLocked() {
    if (!socket_) {
        return; // applied once connected
    }
    // The kernel's own socket timeouts: a blocked call returns EAGAIN once no
    // byte has moved for this long, with no timer thread of ours.
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(idleTimeout_.count() / 1000);
    limit.tv_usec = static_cast<suseconds_t>((idleTimeout_.count() % 1000) * 1000);
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

int TcpConnection::nativeSocket() const {
    const std::lock_guard lock(mutex_);
    return state_ == State::ready && socket_ ? socket_.get() : -1;
}

std::system_error TcpConnection::idleError(const char* call) const {
    const auto limit = idleTimeout();
    const std::string amount = limit.count() % 1000 == 0
                                   ? std::to_string(limit.count() / 1000) + " s"
                                   : std::to_string(limit.count()) + " ms";
    return std::system_error(ETIMEDOUT, std::generic_category(),
                             std::string(call) + " timed out after " + amount);
}

TcpConnection::~TcpConnection() {
    std::vector<std::thread> connectors;
    {
        std::lock_guard lock(mutex_);
        handler_ = nullptr; // whoever installed it may be gone; nothing more is reported
        cancelRequested_ = true;
        connectors.swap(connectors_);
    }
    if (wakeFd_) {
        const std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(wakeFd_.get(), &one, sizeof one);
    }
    for (auto& connector : connectors) {
        connector.join();
    }
}

void TcpConnection::setStateHandler(StateHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

TcpConnection::State TcpConnection::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

void TcpConnection::enqueueLocked(State state, Error error) {
    state_ = state;
    pendingReports_.emplace_back(state, std::move(error));
}

void TcpConnection::deliverReports() {
    // Whoever finds nobody delivering delivers everything queued, in order, so
    // reports from the connecting thread and from cancel() never overtake each
    // other and a handler may call back in without deadlock.
    std::unique_lock lock(mutex_);
    if (delivering_) {
        return;
    }
    delivering_ = true;
    while (!pendingReports_.empty()) {
        auto [state, error] = std::move(pendingReports_.front());
        pendingReports_.pop_front();
        StateHandler handler = handler_;
        lock.unlock();
        if (handler) {
            handler(state, error);
        }
        lock.lock();
    }
    delivering_ = false;
}

void TcpConnection::start() {
    {
        std::lock_guard lock(mutex_);
        if (cancelRequested_) {
            if (!connecting_) {
                enqueueLocked(State::cancelled, std::nullopt);
            }
        } else if (connecting_ || state_ == State::ready) {
            return;
        } else if (accepted_) {
            enqueueLocked(State::ready, std::nullopt);
        } else {
            connecting_ = true;
            enqueueLocked(State::preparing, std::nullopt);
            connectors_.emplace_back([this] { connectLoop(); });
        }
    }
    deliverReports();
}

void TcpConnection::cancel() noexcept {
    {
        std::lock_guard lock(mutex_);
        if (cancelRequested_) {
            return;
        }
        cancelRequested_ = true;
        if (connecting_) {
            // The connecting thread reports cancelled once it has let go of its socket.
            const std::uint64_t one = 1;
            [[maybe_unused]] auto written = ::write(wakeFd_.get(), &one, sizeof one);
            return;
        }
        if (socket_) {
            // Wakes blocked send() and receive(); the descriptor stays open
            // until no thread can still be using it.
            ::shutdown(socket_.get(), SHUT_RDWR);
        }
        enqueueLocked(State::cancelled, std::nullopt);
    }
    deliverReports();
}

void TcpConnection::connectLoop() {
    for (;;) {
        Error error;
        FileDescriptor fd = connectOnce(error);
        {
            std::lock_guard lock(mutex_);
            if (cancelRequested_) {
                connecting_ = false;
                enqueueLocked(State::cancelled, std::nullopt);
                break;
            }
            if (fd) {
                socket_ = std::move(fd);
                applyIdleTimeoutLocked();
                connecting_ = false;
                enqueueLocked(State::ready, std::nullopt);
                break;
            }
            if (!isTransient(*error)) {
                connecting_ = false;
                enqueueLocked(State::failed, std::move(error));
                break;
            }
            enqueueLocked(State::waiting, std::move(error));
        }
        deliverReports();
        const bool slept = waitUnlessCancelled(-1, static_cast<int>(waitingRetryInterval.count()));
        {
            std::lock_guard lock(mutex_);
            if (!slept || cancelRequested_) {
                connecting_ = false;
                enqueueLocked(State::cancelled, std::nullopt);
                break;
            }
            enqueueLocked(State::preparing, std::nullopt);
        }
        deliverReports();
    }
    deliverReports();
}

bool TcpConnection::waitUnlessCancelled(int fd, int timeout) {
    // poll() passes over a negative descriptor: then this only sleeps.
    pollfd waits[2] = {{wakeFd_.get(), POLLIN, 0}, {fd, POLLOUT, 0}};
    int ready;
    do {
        ready = ::poll(waits, 2, timeout);
    } while (ready < 0 && errno == EINTR);
    return waits[0].revents == 0;
}

FileDescriptor TcpConnection::connectOnce(Error& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    // A lookup in progress cannot be interrupted; cancel() takes effect when it returns.
    const int resolved =
        ::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
    if (resolved != 0) {
        error = resolved == EAI_SYSTEM ? callError("getaddrinfo()", errno)
                                       : callError("getaddrinfo()", resolved, resolverCategory());
        return {};
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);

    Error firstLasting;
    Error lastTransient;
    Error socketFailure; // e.g. IPv6 switched off: only worth reporting when nothing else is
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        FileDescriptor fd(::socket(address->ai_family,
                                   address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                                   address->ai_protocol));
        if (!fd) {
            socketFailure = callError("socket()", errno);
            continue;
        }
        int code = 0;
        if (::connect(fd.get(), address->ai_addr, address->ai_addrlen) != 0) {
            code = errno;
        }
        if (code == EINPROGRESS || code == EINTR) {
            if (!waitUnlessCancelled(fd.get(), -1)) {
                return {};
            }
            socklen_t length = sizeof code;
            if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &code, &length) != 0) {
                code = errno;
            }
        }
        if (code == 0) {
            const int flags = ::fcntl(fd.get(), F_GETFL);
            ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
            setNoDelay(fd.get());
            setKeepAlive(fd.get());
            return fd;
        }
        auto failure = callError("connect()", code);
        if (isTransient(failure)) {
            lastTransient = failure;
        } else if (!firstLasting) {
            firstLasting = failure;
        }
    }
    // One address that answered decides: refused outweighs an unreachable sibling.
    error = firstLasting ? firstLasting : lastTransient ? lastTransient : socketFailure;
    if (!error) {
        error = callError("connect()", EADDRNOTAVAIL);
    }
    return {};
}

int TcpConnection::socketFor(const char* call) const {
    std::lock_guard lock(mutex_);
    if (cancelRequested_) {
        throw callError(call, ECANCELED);
    }
    if (state_ != State::ready || !socket_) {
        throw callError(call, ENOTCONN);
    }
    return socket_.get();
}

void TcpConnection::send(ByteView data) {
    if (data.empty()) {
        return;
    }
    std::lock_guard sending(sendMutex_);
    const int fd = socketFor("send()");
    try {
        FileDescriptor::sendAll(fd, data);
    } catch (const std::system_error& error) {
        socketFor("send()"); // a cancel that broke the write is reported as such
        const int code = error.code().value();
        if (code == EAGAIN || code == EWOULDBLOCK) {
            throw idleError("send()");
        }
        throw;
    }
}

std::size_t TcpConnection::receive(MutableByteView into) {
    if (into.empty()) {
        throw std::invalid_argument("receive() needs a maximum of at least 1 byte");
    }
    std::lock_guard receiving(receiveMutex_);
    const int fd = socketFor("recv()");
    for (;;) {
        const ssize_t n = ::recv(fd, into.data(), into.size(), 0);
        if (n > 0) {
            return static_cast<std::size_t>(n);
        }
        const int code = errno;
        socketFor("recv()"); // woken by cancel(): say so rather than report an end
        if (n == 0) {
            return 0;
        }
        if (code == EAGAIN || code == EWOULDBLOCK) {
            throw idleError("recv()");
        }
        if (code != EINTR) {
            throw callError("recv()", code);
        }
    }
}

} // namespace kestrelvane
