#pragma once

#include "KestrelvaneKit/wire/Bytes.h"
#include "KestrelvaneKit/wire/ReceiveBuffer.h"

#include <cstdint>
#include <optional>

namespace kestrelvane {

/// A frame is a 4-byte big-endian payload length followed by the payload.
namespace FrameCodec {

inline constexpr std::uint64_t maxPayloadLength = 0xFFFF'FFFFull;
inline constexpr std::size_t prefixLength = 4;

/// The frame of `payload`. Throws std::length_error above maxPayloadLength.
Bytes encode(ByteView payload);

/// The payload of the first complete frame in `buffer`, which loses that frame;
/// nothing (and `buffer` untouched) while the frame is incomplete.
std::optional<Bytes> decode(ReceiveBuffer& buffer);

/// The length announced by the prefix at the front of `buffer`, once 4 bytes are there.
std::optional<std::uint32_t> peekLength(ByteView buffer);

} // namespace FrameCodec
} // namespace kestrelvane
