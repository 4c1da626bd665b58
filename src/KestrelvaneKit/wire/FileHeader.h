#pragma once

#include "KestrelvaneKit/wire/MediaType.h"
#include "KestrelvaneKit/wire/Timestamp.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kestrelvane {

/// Announces one file; exactly `byteCount` raw bytes follow its frame.
struct FileHeader {
    /// The last path component of the file on the sending side.
    std::string name{};
    MediaType mediaType = MediaType::photo;
    std::uint64_t byteCount = 0;
    /// SHA-256 of the bytes as 64 lower-case hex digits (not validated here).
    std::string sha256{};
    /// The capture date; absent when unknown, always absent for videos.
    std::optional<Timestamp> creationDate{};
    /// The resume extension only. An offer asks the receiver what it holds
    /// of the file; no bytes follow it.
    bool offer = false;
    /// The resume extension only: the bytes that follow start at this
    /// offset of the file (byteCount - from of them); absent means 0.
    std::optional<std::uint64_t> from{};

    /// Field by field; text under canonical equivalence, dates exactly.
    friend bool operator==(const FileHeader& a, const FileHeader& b);
};

} // namespace kestrelvane
