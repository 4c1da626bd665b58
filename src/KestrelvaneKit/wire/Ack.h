#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrelvane {

/// The receiver's answer for one file, matched to it by name.
struct Ack {
    enum class Status { ok, error };

    /// The `name` of the FileHeader this answers.
    std::string name{};
    Status status = Status::ok;
    /// Why, given with `error`.
    std::optional<std::string> message{};

    /// Field by field; text under canonical equivalence.
    friend bool operator==(const Ack& a, const Ack& b);
};

/// "ok" or "error".
std::string_view wireString(Ack::Status status) noexcept;

} // namespace kestrelvane
