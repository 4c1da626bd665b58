#pragma once

#include <string>
#include <string_view>

namespace kestrelvane::Units {

/// Sizes are written in units of 1,048,576 bytes, "MB".
inline constexpr double bytesPerMB = 1'048'576.0;

/// `value` with `decimals` digits after a "." whatever the process's locale
/// (a Qt application adopts the user's, which may write "1,5").
std::string fixed(double value, int decimals);
/// "1.5 MB" for 1,572,864 bytes; `separator` goes between number and unit.
std::string megabytes(double bytes, int decimals = 1, std::string_view separator = " ");
/// "12.3 MB/s"; 0 when `seconds` is not above 0.
std::string rate(double bytes, double seconds, int decimals = 1, std::string_view separator = " ");
/// "m:ss" of the nearest whole second (halves away from zero); never negative.
std::string clock(double seconds);

} // namespace kestrelvane::Units
