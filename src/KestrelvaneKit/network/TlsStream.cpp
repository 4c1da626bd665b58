#include "KestrelvaneKit/network/TlsStream.h"

#include "KestrelvaneKit/network/OpenSsl.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/socket.h>

namespace kestrelvane {
namespace {

template <auto Free> struct Freer {
    template <class T> void operator()(T* object) const noexcept { Free(object); }
};

/// The most one TLS call is given: it keeps the lock that short, so a
/// waiting receive gets its turn between the pieces of a large send.
constexpr int largestCall = 256 * 1024;

/// Reads and writes the socket for OpenSSL as its own socket BIO would, but
/// sends with MSG_NOSIGNAL: a vanished peer is an error, never SIGPIPE.
BIO_METHOD* socketMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kestrelvane socket");
        BIO_meth_set_create(made, [](BIO* bio) {
            BIO_set_init(bio, 1);
            return 1;
        });
        BIO_meth_set_write(made, [](BIO* bio, const char* data, int size) {
            BIO_clear_retry_flags(bio);
            const auto sent =
                ::send(static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio))), data,
                       static_cast<std::size_t>(size), MSG_NOSIGNAL);
            if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                BIO_set_retry_write(bio);
            }
            return static_cast<int>(sent);
        });
        BIO_meth_set_read(made, [](BIO* bio, char* data, int size) {
            BIO_clear_retry_flags(bio);
            const auto got =
                ::recv(static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio))), data,
                       static_cast<std::size_t>(size), 0);
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                BIO_set_retry_read(bio);
            }
            return static_cast<int>(got);
        });
        BIO_meth_set_ctrl(made, [](BIO*, int command, long, void*) -> long {
            return command == BIO_CTRL_FLUSH ? 1 : 0;
        });
        return made;
    }();
    return method;
}

SSL_CTX* makeContext(TlsStream::Role role, const DeviceIdentity& identity) {
    SSL_CTX* context =
        SSL_CTX_new(role == TlsStream::Role::client ? TLS_client_method() : TLS_server_method());
    const bool made =
        context != nullptr && SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1 &&
        SSL_CTX_set_ciphersuites(context, "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256:"
                                          "TLS_AES_256_GCM_SHA384") == 1 &&
        SSL_CTX_set1_groups_list(context, "X25519:P-256") == 1 &&
        SSL_CTX_set1_sigalgs_list(context, "ed25519") == 1 &&
        SSL_CTX_use_certificate(context, identity.certificate()) == 1 &&
        SSL_CTX_use_PrivateKey(context, identity.key()) == 1 &&
        SSL_CTX_set_num_tickets(context, 0) == 1;
    if (!made) {
        SSL_CTX_free(context);
        throw std::system_error(EPROTO, std::generic_category(),
                                "cannot set up TLS: " + openSslError());
    }
    SSL_CTX_set_max_cert_list(context, 16 * 1024);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE);
    // Read what the socket has, several records at once, rather than a
    // record header and then its body with a system call each.
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_default_read_buffer_len(context, largestCall);
    return context;
}

} // namespace

struct TlsStream::Session {
    Role role;
    std::optional<Fingerprint> pinned;
    std::optional<Fingerprint> shown; // what the peer's certificate was, even when refused
    std::unique_ptr<SSL_CTX, Freer<SSL_CTX_free>> context;
    std::unique_ptr<SSL, Freer<SSL_free>> ssl;
    int socket = -1;
    bool handshakeDone = false;
};

TlsStream::TlsStream(std::shared_ptr<TcpConnection> connection, Role role,
                     const DeviceIdentity& identity, std::optional<Fingerprint> pinned)
    : clear_(std::move(connection)), session_(std::make_unique<Session>()),
      own_(identity.fingerprint()) {
    session_->role = role;
    session_->pinned = pinned;
    session_->context.reset(makeContext(role, identity));
    SSL_CTX_set_verify(session_->context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       checkCertificate);
}

TlsStream::~TlsStream() = default;

void TlsStream::start() {
    {
        const std::lock_guard lock(mutex_);
        if (session_->handshakeDone) {
            return; // started by whoever admitted it; the engine's start() finds it ready
        }
    }
    clear_.start();
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            throw StreamError::closed();
        }
        session_->socket = clear_.connection().nativeSocket();
        const int flags = ::fcntl(session_->socket, F_GETFL);
        if (flags < 0 || ::fcntl(session_->socket, F_SETFL, flags | O_NONBLOCK) != 0) {
            throw callError("fcntl()", errno);
        }
        session_->ssl.reset(SSL_new(session_->context.get()));
        BIO* bio = BIO_new(socketMethod());
        if (!session_->ssl || bio == nullptr) {
            BIO_free(bio);
            throw std::system_error(EPROTO, std::generic_category(),
                                    "cannot set up TLS: " + openSslError());
        }
        BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(session_->socket)));
        SSL_set_bio(session_->ssl.get(), bio, bio);
        SSL_set_app_data(session_->ssl.get(), session_.get());
    }
    const bool client = session_->role == Role::client;
    try {
        drive("TLS handshake",
              [client](SSL* ssl) { return client ? SSL_connect(ssl) : SSL_accept(ssl); });
    } catch (const std::system_error&) {
        const std::lock_guard lock(mutex_);
        if (session_->pinned && session_->shown && *session_->shown != *session_->pinned) {
            peer_ = *session_->shown;
            throw StreamError::refused("the peer's key is not the one pinned");
        }
        throw;
    }
    const std::lock_guard lock(mutex_);
    X509* certificate = SSL_get0_peer_certificate(session_->ssl.get());
    if (certificate == nullptr) { // required by both ends; a handshake without one fails first
        throw std::system_error(EPROTO, std::generic_category(), "the peer showed no certificate");
    }
    peer_ = Fingerprint::of(certificate);
    session_->handshakeDone = true;
}

void TlsStream::send(ByteView data) {
    const std::lock_guard sending(sendMutex_);
    std::size_t written = 0;
    while (written < data.size()) {
        const int piece =
            static_cast<int>(std::min<std::size_t>(data.size() - written, largestCall));
        written += static_cast<std::size_t>(drive(
            "SSL_write()", [&](SSL* ssl) { return SSL_write(ssl, data.data() + written, piece); }));
    }
}

Bytes TlsStream::receive(std::int64_t max) {
    return receiveThroughInto(max);
}

std::size_t TlsStream::receiveInto(MutableByteView into) {
    if (into.empty()) {
        throw std::invalid_argument("receive() needs a maximum of at least 1 byte");
    }
    const std::lock_guard receiving(receiveMutex_);
    const auto roomAt = [&](std::size_t at) {
        return static_cast<int>(std::min<std::size_t>(into.size() - at, INT_MAX));
    };
    auto got = static_cast<std::size_t>(
        drive("SSL_read()", [&](SSL* ssl) { return SSL_read(ssl, into.data(), roomAt(0)); }));
    // One record is at most 16 KiB: hand over what is already read ahead in
    // the same call. A failure here shows again on the next call.
    const std::lock_guard lock(mutex_);
    while (got < into.size() && !closed_ && SSL_has_pending(session_->ssl.get()) == 1) {
        const int more = SSL_read(session_->ssl.get(), into.data() + got, roomAt(got));
        if (more <= 0) {
            break;
        }
        got += static_cast<std::size_t>(more);
    }
    ERR_clear_error();
    return got;
}

TlsStream::Role TlsStream::role() const noexcept {
    return session_->role;
}

std::array<std::uint8_t, 32> TlsStream::exportedSecret(const std::string& label) {
    std::array<std::uint8_t, 32> secret{};
    const std::lock_guard lock(mutex_);
    if (!session_->handshakeDone ||
        SSL_export_keying_material(session_->ssl.get(), secret.data(), secret.size(), label.data(),
                                   label.size(), nullptr, 0, 0) != 1) {
        throw std::system_error(EPROTO, std::generic_category(),
                                "no keying material to export: " + openSslError());
    }
    return secret;
}

void TlsStream::close() noexcept {
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return;
        }
        closed_ = true;
        if (session_->handshakeDone) {
            SSL_shutdown(session_->ssl.get()); // close_notify if there is room; never waits
            ERR_clear_error();
        }
    }
    clear_.close();
}

int TlsStream::checkCertificate(int, X509_STORE_CTX* store) {
    auto* ssl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* session = static_cast<Session*>(SSL_get_app_data(ssl));
    if (X509_STORE_CTX_get_error_depth(store) != 0) {
        return 0; // a device shows its own certificate and no chain
    }
    // OpenSSL's own verdict (a self-signed certificate no authority vouches
    // for) is overruled: the fingerprint is what counts. The handshake still
    // proves the peer holds the certificate's key.
    session->shown = Fingerprint::of(X509_STORE_CTX_get_current_cert(store));
    if (session->pinned && *session->shown != *session->pinned) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0; // stop before this end's own certificate goes out
    }
    return 1;
}

template <class Call> int TlsStream::drive(const char* what, Call call) {
    for (;;) {
        short wanted = 0;
        {
            const std::lock_guard lock(mutex_);
            if (closed_) {
                throw StreamError::closed();
            }
            ERR_clear_error();
            const int result = call(session_->ssl.get());
            if (result > 0) {
                return result;
            }
            const int code = errno;
            switch (SSL_get_error(session_->ssl.get(), result)) {
            case SSL_ERROR_WANT_READ:
                wanted = POLLIN;
                break;
            case SSL_ERROR_WANT_WRITE:
                wanted = POLLOUT;
                break;
            case SSL_ERROR_ZERO_RETURN: // close_notify, or a plain end of the connection
                throw StreamError::closed();
            case SSL_ERROR_SYSCALL:
                ERR_clear_error();
                if (code == 0) {
                    throw StreamError::closed();
                }
                throw callError(what, code);
            default:
                throw std::system_error(EPROTO, std::generic_category(),
                                        std::string(what) + " failed: " + openSslError());
            }
        }
        waitFor(wanted, what);
    }
}

void TlsStream::setDeadline(std::optional<std::chrono::steady_clock::time_point> deadline) {
    const std::lock_guard lock(mutex_);
    deadline_ = deadline;
}

void TlsStream::waitFor(short events, const char* what) {
    using namespace std::chrono;
    const milliseconds idle = clear_.connection().idleTimeout();
    std::optional<steady_clock::time_point> deadline;
    {
        const std::lock_guard lock(mutex_);
        deadline = deadline_;
    }
    pollfd waiting{.fd = session_->socket, .events = events, .revents = 0};
    for (;;) {
        // The idle time-out, or what is left before the deadline if that is sooner.
        milliseconds limit = idle.count() > 0 ? idle : milliseconds::max();
        const bool byDeadline =
            deadline && duration_cast<milliseconds>(*deadline - steady_clock::now()) < limit;
        if (byDeadline) {
            limit = std::max(milliseconds(0),
                             duration_cast<milliseconds>(*deadline - steady_clock::now()));
        }
        const int ready = ::poll(&waiting, 1,
                                 limit == milliseconds::max()
                                     ? -1
                                     : static_cast<int>(std::min<milliseconds::rep>(
                                           limit.count(), std::numeric_limits<int>::max())));
        if (ready > 0) {
            return; // readable, writable, or hung up: the next TLS call tells which
        }
        if (ready == 0) {
            throw byDeadline ? std::system_error(ETIMEDOUT, std::generic_category(),
                                                 std::string(what) + " ran past its deadline")
                             : clear_.connection().idleError(what);
        }
        if (errno != EINTR) {
            throw callError("poll()", errno);
        }
    }
}

} // namespace kestrelvane
