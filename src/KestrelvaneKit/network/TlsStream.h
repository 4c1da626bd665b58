#pragma once

#include "KestrelvaneKit/network/BonjourStream.h"
#include "KestrelvaneKit/network/DeviceIdentity.h"
#include "KestrelvaneKit/wire/KestrelvaneStream.h"

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrelvane {

/// The transfer protocol's stream over TLS 1.3 on a TCP connection, both ends
/// authenticated by their device certificates.
///
/// No certificate authority and no host name is checked: the handshake only
/// proves that the peer holds the key of the certificate it shows, and
/// peerFingerprint() says which certificate that was, for the caller to
/// decide by its own list before it sends or reads a byte.
///
/// As every stream: a send and a receive may run at once on two threads,
/// sends never interleave, and close() wakes whatever waits. The connection's
/// idle timeout bounds each wait, the handshake's included. Failures of TLS
/// itself are std::system_error (EPROTO) with OpenSSL's reason; the peer's
/// end, with or without close_notify, is StreamError::closed.
class TlsStream final : public KestrelvaneStream {
public:
    /// The connecting end is the client; the end that accepted, the server.
    enum class Role { client, server };

    /// A client given `pinned` stops the handshake at any other certificate,
    /// before its own goes out; start() then throws StreamError::refused and
    /// peerFingerprint() tells what was shown instead.
    TlsStream(std::shared_ptr<TcpConnection> connection, Role role, const DeviceIdentity& identity,
              std::optional<Fingerprint> pinned = std::nullopt);
    ~TlsStream() override;

    /// Starts the connection and runs the handshake; once done, returns at once.
    void start() override;
    void send(ByteView data) override;
    Bytes receive(std::int64_t max) override;
    std::size_t receiveInto(MutableByteView into) override;
    void close() noexcept override;

    /// The SHA-256 fingerprint of the certificate the peer proved it holds,
    /// once start() has returned (or refused it for not being the pinned one).
    const Fingerprint& peerFingerprint() const noexcept { return peer_; }
    Role role() const noexcept;
    /// This end's own fingerprint.
    const Fingerprint& ownFingerprint() const noexcept { return own_; }
    /// 32 bytes that only the two ends of this TLS session can compute
    /// (RFC 8446's exporter under `label`): ties a pairing to this very
    /// connection, which a relay's two connections cannot share.
    std::array<std::uint8_t, 32> exportedSecret(const std::string& label);
    TcpConnection& connection() noexcept { return clear_.connection(); }
    /// Every wait from now on ends by `deadline` at the latest (ETIMEDOUT,
    /// "… ran past its deadline"), however the bytes trickle in; none lifts
    /// it. For the time a stranger may take to be admitted.
    void setDeadline(std::optional<std::chrono::steady_clock::time_point> deadline);

private:
    struct Session;
    /// OpenSSL's certificate check, overruled by the fingerprint.
    static int checkCertificate(int preverified, X509_STORE_CTX* store);
    /// Runs `call` on the TLS state under its lock until it makes progress,
    /// waiting outside the lock for what it wants. Returns call's result.
    template <class Call> int drive(const char* what, Call call);
    void waitFor(short events, const char* what);

    BonjourStream clear_;
    std::unique_ptr<Session> session_;
    std::mutex mutex_;        // guards the TLS state and closed_
    std::mutex sendMutex_;    // one send at a time: records leave in order
    std::mutex receiveMutex_; // one receive at a time
    bool closed_ = false;
    Fingerprint peer_;
    Fingerprint own_;
    std::optional<std::chrono::steady_clock::time_point> deadline_; // guarded by mutex_
};

} // namespace kestrelvane
