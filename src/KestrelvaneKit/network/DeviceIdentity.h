#pragma once

#include <openssl/types.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrelvane {

/// What identifies a device: the SHA-256 of its certificate's DER encoding.
struct Fingerprint {
    std::array<std::uint8_t, 32> bytes{};

    /// 64 lower-case hex digits.
    std::string hex() const;
    /// The hex digits in groups of four, for people to compare.
    std::string grouped() const;
    /// The first 16 hex digits: enough to tell devices apart on a screen or
    /// in a DNS-SD record, never enough to trust.
    std::string shortHex() const { return hex().substr(0, 16); }

    /// From 64 hex digits (either case); nothing for anything else.
    static std::optional<Fingerprint> fromHex(std::string_view text);
    static Fingerprint of(X509* certificate);

    friend bool operator==(const Fingerprint&, const Fingerprint&) = default;
};

/// A key or certificate file that cannot be made, read or trusted; the
/// message names the file and what to do.
class IdentityError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// This installation's key pair and self-signed certificate: an Ed25519 key
/// made on first use and kept, with the certificate, in `identity.pem` in
/// the identity folder (see PrivateFolder). The certificate names nobody (its
/// subject is "Kestrelvane" on every device): its fingerprint is the identity.
class DeviceIdentity {
public:
    /// `$XDG_DATA_HOME/kestrelvane`, else `~/.local/share/kestrelvane`.
    static std::filesystem::path defaultFolder();

    /// Reads the identity kept in `folder`, or makes one there when there is
    /// none. Two processes that start at once end up with the same one.
    /// Throws IdentityError, also for a key file that is not private or not
    /// a key: it is never replaced behind the user's back.
    static DeviceIdentity loadOrCreate(const std::filesystem::path& folder);
    /// Makes a new identity in `folder`, replacing the one kept there.
    static DeviceIdentity createNew(const std::filesystem::path& folder);

    const Fingerprint& fingerprint() const noexcept { return fingerprint_; }
    EVP_PKEY* key() const noexcept { return key_.get(); }
    X509* certificate() const noexcept { return certificate_.get(); }

private:
    DeviceIdentity(std::shared_ptr<EVP_PKEY> key, std::shared_ptr<X509> certificate);
    static DeviceIdentity load(const std::filesystem::path& path, const std::string& pem);

    std::shared_ptr<EVP_PKEY> key_;
    std::shared_ptr<X509> certificate_;
    Fingerprint fingerprint_;
};

/// This machine's host name, the name a device has unless told otherwise.
std::string hostName();

} // namespace kestrelvane
