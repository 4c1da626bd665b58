#include "KestrelvaneKit/intake/Checksum.h"

#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>

namespace kestrelvane {
namespace {

std::string toLowerHex(const unsigned char* digest, unsigned int length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex(std::size_t{length} * 2, '0');
    for (unsigned int i = 0; i < length; ++i) {
        hex[2 * i] = digits[digest[i] >> 4];
        hex[2 * i + 1] = digits[digest[i] & 0x0F];
    }
    return hex;
}

} // namespace

struct Sha256Hasher::Context {
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    ~Context() { EVP_MD_CTX_free(md); }
};

Sha256Hasher::Sha256Hasher() : context_(std::make_unique<Context>()) {
    if (context_->md == nullptr || EVP_DigestInit_ex(context_->md, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available from OpenSSL");
    }
}

Sha256Hasher::~Sha256Hasher() = default;
Sha256Hasher::Sha256Hasher(Sha256Hasher&&) noexcept = default;
Sha256Hasher& Sha256Hasher::operator=(Sha256Hasher&&) noexcept = default;

void Sha256Hasher::update(ByteView bytes) {
    if (!bytes.empty() && EVP_DigestUpdate(context_->md, bytes.data(), bytes.size()) != 1) {
        throw std::runtime_error("SHA-256 update failed");
    }
}

std::string Sha256Hasher::finalizeHex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_->md, digest.data(), &length) != 1) {
        throw std::runtime_error("SHA-256 final failed");
    }
    return toLowerHex(digest.data(), length);
}

void Sha256Hasher::updateFromFile(const std::filesystem::path& path, std::uint64_t count) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        throw std::filesystem::filesystem_error("cannot open file", path,
                                                std::error_code(errno, std::generic_category()));
    }
    Bytes chunk(1 << 20);
    try {
        while (count > 0) {
            const auto want =
                static_cast<std::size_t>(std::min<std::uint64_t>(count, chunk.size()));
            const std::size_t got =
                FileDescriptor::readSome(file.get(), MutableByteView(chunk).first(want));
            if (got == 0) {
                throw std::system_error(EIO, std::generic_category(), "file shorter than expected");
            }
            update(ByteView(chunk.data(), got));
            count -= got;
        }
    } catch (const std::system_error& error) {
        throw std::filesystem::filesystem_error("cannot read file", path, error.code());
    }
}

std::string Sha256Hasher::digestSoFarHex() const {
    Sha256Hasher copy;
    if (EVP_MD_CTX_copy_ex(copy.context_->md, context_->md) != 1) {
        throw std::runtime_error("SHA-256 copy failed");
    }
    return copy.finalizeHex();
}

namespace Checksum {

std::string sha256Hex(ByteView bytes) {
    Sha256Hasher hasher;
    hasher.update(bytes);
    return hasher.finalizeHex();
}

std::string sha256HexOfFile(const std::filesystem::path& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        throw std::filesystem::filesystem_error("cannot open file", path,
                                                std::error_code(errno, std::generic_category()));
    }
    Sha256Hasher hasher;
    Bytes chunk(1 << 20);
    try {
        while (const std::size_t got = FileDescriptor::readSome(file.get(), chunk)) {
            hasher.update(ByteView(chunk.data(), got));
        }
    } catch (const std::system_error& error) {
        throw std::filesystem::filesystem_error("cannot read file", path, error.code());
    }
    return hasher.finalizeHex();
}

} // namespace Checksum
} // namespace kestrelvane
