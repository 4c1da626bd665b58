#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvane {

/// The receiver's answer to an offer in the resume extension: what it holds
/// of the offered file.
struct Holding {
    enum class Kind { saved, partial, none };

    /// The offer's `name`.
    std::string name{};
    Kind kind = Kind::none;
    /// With `partial`: how many bytes from the start of the file it holds,
    /// and their SHA-256 (64 lower-case hex digits).
    std::optional<std::uint64_t> bytes{};
    std::optional<std::string> prefixSha256{};

    friend bool operator==(const Holding&, const Holding&) = default;
};

/// "saved", "partial" or "none".
std::string_view wireString(Holding::Kind kind) noexcept;

} // namespace kestrelvane
