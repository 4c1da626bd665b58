#pragma once

#include "KestrelvaneKit/wire/FileDescriptor.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace kestrelvane {

/// What a receiver keeps of files whose session broke, so that the same
/// sender can send the rest (docs/protocol.md). Each partial is a bytes file
/// and a description of the file it is the beginning of, named after a
/// digest of that description: a name from the sender never becomes a path.
///
/// The folder is the caller's to choose and to keep private; one receiver
/// process uses it at a time for a given file (the same sender does not send
/// the same file twice at once).
class PartialStore {
public:
    /// What a partial is tied to: all of it must match for it to be used.
    struct Key {
        std::string device; ///< the sending device's fingerprint
        std::string name;
        std::uint64_t byteCount = 0;
        std::string sha256;
    };

    static constexpr std::chrono::hours maxAge{24};
    static constexpr std::uint64_t maxTotalBytes = 16ull << 30;

    explicit PartialStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

    const std::filesystem::path& folder() const noexcept { return folder_; }

    /// How many bytes of `key`'s file are held, if any. A partial that does
    /// not match its key, is too long or too old is removed instead.
    std::optional<std::uint64_t> held(const Key& key) const;

    /// The file that holds `key`'s bytes.
    std::filesystem::path bytesPath(const Key& key) const;

    /// A descriptor to write `key`'s bytes from offset `from` on: from 0, a
    /// fresh partial whose description is on disk before any byte; from the
    /// end of a held one, that one, cut to `from`. Throws std::system_error.
    FileDescriptor open(const Key& key, std::uint64_t from) const;

    /// Forgets `key`'s partial: its description, and its bytes unless they
    /// have already been moved away.
    void remove(const Key& key) const noexcept;

    /// Removes partials older than maxAge, then the oldest ones until all of
    /// them together hold at most maxTotalBytes. Returns how many went.
    int prune() const;

private:
    std::string idOf(const Key& key) const;

    std::filesystem::path folder_;
};

} // namespace kestrelvane
