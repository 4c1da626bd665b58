#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvane {

/// A point in time. Microseconds keep sub-second precision over the whole
/// range of four-digit years.
using Timestamp = std::chrono::sys_time<std::chrono::microseconds>;

/// The RFC 3339 internet date-time form with whole seconds, as carried by the protocol.
namespace Rfc3339 {

/// '2024-03-05T14:07:09Z': UTC, any fraction of a second dropped (rounded toward
/// the past). Throws std::out_of_range outside the years 0000 to 9999.
std::string format(Timestamp time);

/// Reads 'YYYY-MM-DDTHH:MM:SS' followed by 'Z' or a '+HH:MM' / '-HH:MM' offset.
/// Anything else, a fraction of a second included, yields nothing.
std::optional<Timestamp> parse(std::string_view text);

} // namespace Rfc3339
} // namespace kestrelvane
