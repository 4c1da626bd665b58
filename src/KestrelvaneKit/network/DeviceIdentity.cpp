#include "KestrelvaneKit/network/DeviceIdentity.h"

#include "KestrelvaneKit/network/OpenSsl.h"
#include "KestrelvaneKit/network/PrivateFolder.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

namespace kestrelvane {
namespace {

constexpr const char* keyFileName = "identity.pem";
constexpr long certificateDays = 100L * 365;

std::shared_ptr<X509> makeCertificate(EVP_PKEY* key) {
    std::shared_ptr<X509> certificate(X509_new(), X509_free);
    std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), BN_free);
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    const bool made =
        X509_set_version(certificate.get(), X509_VERSION_3) == 1 && serial &&
        BN_rand(serial.get(), 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
        BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) != nullptr &&
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) != nullptr &&
        X509_time_adj_ex(X509_getm_notAfter(certificate.get()), certificateDays, 0, nullptr) !=
            nullptr &&
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("Kestrelvane"), -1, -1,
                                   0) == 1 &&
        X509_set_issuer_name(certificate.get(), subject) == 1 &&
        X509_set_pubkey(certificate.get(), key) == 1 &&
        X509_sign(certificate.get(), key, nullptr) > 0;
    if (!made) {
        throw IdentityError("cannot make a certificate: " + openSslError());
    }
    return certificate;
}

std::string pemOf(EVP_PKEY* key, X509* certificate) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
        PEM_write_bio_X509(bio.get(), certificate) != 1) {
        throw IdentityError("cannot encode the device key: " + openSslError());
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}

/// A new key and its certificate, as the text of a key file.
std::string newKeyFile() {
    const std::shared_ptr<EVP_PKEY> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"),
                                        EVP_PKEY_free);
    if (!key) {
        throw IdentityError("cannot make a device key: " + openSslError());
    }
    return pemOf(key.get(), makeCertificate(key.get()).get());
}

} // namespace

std::string Fingerprint::hex() const {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

std::string Fingerprint::grouped() const {
    const std::string digits = hex();
    std::string text;
    for (std::size_t at = 0; at < digits.size(); at += 4) {
        text += (at == 0 ? "" : " ") + digits.substr(at, 4);
    }
    return text;
}

std::optional<Fingerprint> Fingerprint::fromHex(std::string_view text) {
    if (text.size() != 64) {
        return std::nullopt;
    }
    Fingerprint fingerprint;
    for (std::size_t i = 0; i < fingerprint.bytes.size(); ++i) {
        const int high = OPENSSL_hexchar2int(static_cast<unsigned char>(text[2 * i]));
        const int low = OPENSSL_hexchar2int(static_cast<unsigned char>(text[2 * i + 1]));
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        fingerprint.bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return fingerprint;
}

Fingerprint Fingerprint::of(X509* certificate) {
    Fingerprint fingerprint;
    unsigned int size = 0;
    if (X509_digest(certificate, EVP_sha256(), fingerprint.bytes.data(), &size) != 1 ||
        size != fingerprint.bytes.size()) {
        throw IdentityError("cannot take a certificate's fingerprint: " + openSslError());
    }
    return fingerprint;
}

std::filesystem::path DeviceIdentity::defaultFolder() {
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data != nullptr && data[0] == '/') {
        return std::filesystem::path(data) / "kestrelvane";
    }
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        throw IdentityError("neither XDG_DATA_HOME nor HOME names a folder for the device key");
    }
    return std::filesystem::path(home) / ".local/share/kestrelvane";
}

DeviceIdentity DeviceIdentity::loadOrCreate(const std::filesystem::path& folder) {
    const PrivateFolder keys(folder);
    std::optional<std::string> pem = keys.read(keyFileName);
    if (!pem) {
        // Linked, not renamed, into place: of two processes making a key at
        // once, both then read the one that got there first.
        keys.write(keyFileName, newKeyFile(), false);
        pem = keys.read(keyFileName);
    }
    return load(folder / keyFileName, pem.value());
}

DeviceIdentity DeviceIdentity::createNew(const std::filesystem::path& folder) {
    const PrivateFolder keys(folder);
    keys.write(keyFileName, newKeyFile(), true);
    return load(folder / keyFileName, keys.read(keyFileName).value());
}

DeviceIdentity DeviceIdentity::load(const std::filesystem::path& path, const std::string& pem) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    std::shared_ptr<EVP_PKEY> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr),
                                  EVP_PKEY_free);
    std::shared_ptr<X509> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr),
                                      X509_free);
    if (!key || !certificate || X509_check_private_key(certificate.get(), key.get()) != 1) {
        throw IdentityError(path.string() + ": not a key and its certificate (" + openSslError() +
                            "); kestrelvane id --new makes a new one");
    }
    return DeviceIdentity(std::move(key), std::move(certificate));
}

DeviceIdentity::DeviceIdentity(std::shared_ptr<EVP_PKEY> key, std::shared_ptr<X509> certificate)
    : key_(std::move(key)), certificate_(std::move(certificate)),
      fingerprint_(Fingerprint::of(certificate_.get())) {
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "Kestrelvane receiver";
    }
    return name;
}

} // namespace kestrelvane
