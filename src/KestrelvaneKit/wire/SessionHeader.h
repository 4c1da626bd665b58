#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvane {

/// The first message of a session, sender to receiver.
struct SessionHeader {
    enum class Direction { macToPhone, phoneToMac };

    /// The schema version every sender writes.
    static constexpr std::int64_t currentSchemaVersion = 1;

    std::int64_t schemaVersion = currentSchemaVersion;
    Direction direction = Direction::macToPhone;
    /// The album the receiver files the session's items into; absent when none.
    std::optional<std::string> albumName{};
    /// The version of the resume extension the sender speaks in this
    /// session; absent for a version-1 conversation (docs/protocol.md).
    std::optional<std::int64_t> resume{};
    /// The sending device's fingerprint, with `resume`: what the receiver
    /// ties the partial files of a broken session to.
    std::optional<std::string> device{};

    /// The version of the resume extension this code speaks.
    static constexpr std::int64_t resumeVersion = 1;

    /// Field by field; text under canonical equivalence.
    friend bool operator==(const SessionHeader& a, const SessionHeader& b);
};

/// "macToPhone" or "phoneToMac".
std::string_view wireString(SessionHeader::Direction direction) noexcept;

} // namespace kestrelvane
