#pragma once

#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/FileDescriptor.h"
#include "KestrelvaneKit/wire/FileHeader.h"
#include "KestrelvaneKit/wire/FrameChannel.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <string>

namespace kestrelvane {

/// One file read and described, ready to be written after its header.
///
/// Files up to `wholeReadLimit` are read into memory once. Larger ones (long
/// videos) are hashed in a streaming pass and read again while they are sent,
/// through the descriptor opened for hashing, so memory stays bounded however
/// large the file. If such a file shrinks in between, writeBytes() fails
/// rather than leave the receiver short of the bytes it was promised.
class PreparedFile {
public:
    static constexpr std::uint64_t wholeReadLimit = 64ull << 20;
    /// Read and send in runs that stay in the core's cache between the read
    /// and the hash or the send that follow (4 MiB measured slower).
    static constexpr std::size_t streamChunkBytes = 1u << 20;

    /// Reads and hashes the file at `path`; the capture date is read for photos.
    /// Throws std::filesystem::filesystem_error when the file cannot be read,
    /// and StreamError::closed when `stop` is requested while a large file is
    /// being hashed (the send it was for has ended).
    static PreparedFile prepare(const std::filesystem::path& path, MediaType type,
                                std::stop_token stop = {});

    PreparedFile(PreparedFile&& other) noexcept;
    PreparedFile& operator=(PreparedFile&&) = delete;
    PreparedFile(const PreparedFile&) = delete;
    PreparedFile& operator=(const PreparedFile&) = delete;
    ~PreparedFile();

    const FileHeader& header() const noexcept { return header_; }

    /// Writes the file's raw bytes from offset `from` on to `channel`:
    /// exactly header().byteCount - from of them.
    void writeBytes(FrameChannel& channel, std::uint64_t from = 0);

    /// The SHA-256 of the file's first `count` bytes (at most byteCount), as
    /// read now: what the receiver holds of it is checked against this.
    std::string prefixSha256(std::uint64_t count) const;

private:
    PreparedFile() = default;

    /// Memory for a file read whole, uninitialised until read into. Buffers
    /// go back to a small pool when done with, so that a batch of photos
    /// reuses a few buffers instead of having fresh memory zeroed and mapped
    /// for every file.
    struct Buffer {
        std::unique_ptr<std::uint8_t[]> bytes;
        std::size_t capacity = 0;

        static Buffer take(std::size_t atLeast);
        static void giveBack(Buffer buffer);
    };

    std::filesystem::path path_;
    FileHeader header_;
    Buffer data_;          // whole contents, for files read into memory
    std::size_t size_ = 0; // of them
    FileDescriptor fd_;    // open, for files streamed while sending
};

} // namespace kestrelvane
