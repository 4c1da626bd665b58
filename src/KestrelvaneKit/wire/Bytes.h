#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kestrelvane {

/// An owned byte buffer, indexed from zero.
using Bytes = std::vector<std::uint8_t>;

/// A read-only view of bytes owned elsewhere.
using ByteView = std::span<const std::uint8_t>;

/// Writable bytes owned elsewhere: where a receive puts what it brings.
using MutableByteView = std::span<std::uint8_t>;

inline ByteView asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline std::string_view asText(ByteView bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline Bytes toBytes(std::string_view text) {
    const ByteView view = asBytes(text);
    return {view.begin(), view.end()};
}

} // namespace kestrelvane
