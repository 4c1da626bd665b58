#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace kestrelvane {

/// Incremental SHA-256: feed pieces in order, then take the digest once.
class Sha256Hasher {
public:
    Sha256Hasher();
    ~Sha256Hasher();
    Sha256Hasher(Sha256Hasher&&) noexcept;
    Sha256Hasher& operator=(Sha256Hasher&&) noexcept;

    void update(ByteView bytes);
    /// Feeds the first `count` bytes of the file at `path`. Throws
    /// std::filesystem::filesystem_error when they cannot all be read.
    void updateFromFile(const std::filesystem::path& path, std::uint64_t count);
    /// The digest as 64 lower-case hex digits; the hasher is spent afterwards.
    std::string finalizeHex();
    /// The digest of what has been fed so far; the hasher goes on.
    std::string digestSoFarHex() const;

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

/// SHA-256 of bytes and of files, as 64 lower-case hexadecimal digits.
namespace Checksum {

std::string sha256Hex(ByteView bytes);

/// Reads the file in 1 MiB pieces. Throws std::filesystem::filesystem_error
/// when it cannot be opened or read.
std::string sha256HexOfFile(const std::filesystem::path& path);

} // namespace Checksum
} // namespace kestrelvane
