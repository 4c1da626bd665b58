#pragma once

#include <cstdint>
#include <string_view>

namespace kestrelvane {

/// The two constants by which senders and receivers find each other.
namespace KestrelvaneService {

/// The DNS-SD service type a receiver advertises and the browser looks for.
inline constexpr std::string_view type = "_kestrelvane._tcp";
/// The TCP port a receiver listens on; the USB path tunnels to it as well.
inline constexpr std::uint16_t listenerPort = 9876;
/// The port on a phone where a receiver that speaks the resume extension
/// listens too (docs/protocol.md): a sender that reaches it knows before the
/// session that the extension is spoken.
inline constexpr std::uint16_t extensionPort = 9877;

} // namespace KestrelvaneService
} // namespace kestrelvane
