#include "KestrelvaneKit/wire/Timestamp.h"

#include <cstdio>
#include <stdexcept>

namespace kestrelvane::Rfc3339 {
namespace {

using namespace std::chrono;

// Reads exactly `digits` decimal digits at `pos`.
std::optional<int> readNumber(std::string_view text, std::size_t pos, std::size_t digits) {
    if (pos + digits > text.size()) {
        return std::nullopt;
    }
    int value = 0;
    for (std::size_t i = pos; i < pos + digits; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

std::string format(Timestamp time) {
    const auto secondsSinceEpoch = floor<seconds>(time);
    const auto day = floor<days>(secondsSinceEpoch);
    const year_month_day date{day};
    const hh_mm_ss clock{secondsSinceEpoch - day};
    const int yearValue = static_cast<int>(date.year());
    if (yearValue < 0 || yearValue > 9999) {
        throw std::out_of_range("date outside the years 0000 to 9999");
    }
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", yearValue,
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text;
}

std::optional<Timestamp> parse(std::string_view text) {
    // YYYY-MM-DDTHH:MM:SS is 19 characters; then 'Z' (20) or an offset (25).
    if (text.size() != 20 && text.size() != 25) {
        return std::nullopt;
    }
    if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    const auto y = readNumber(text, 0, 4);
    const auto mo = readNumber(text, 5, 2);
    const auto d = readNumber(text, 8, 2);
    const auto h = readNumber(text, 11, 2);
    const auto mi = readNumber(text, 14, 2);
    const auto s = readNumber(text, 17, 2);
    if (!y || !mo || !d || !h || !mi || !s) {
        return std::nullopt;
    }
    const year_month_day date{year{*y}, month{static_cast<unsigned>(*mo)},
                              day{static_cast<unsigned>(*d)}};
    if (!date.ok() || *h > 23 || *mi > 59 || *s > 59) {
        return std::nullopt;
    }

    minutes offset{0};
    if (text.size() == 20) {
        if (text[19] != 'Z') {
            return std::nullopt;
        }
    } else {
        const char sign = text[19];
        const auto oh = readNumber(text, 20, 2);
        const auto om = readNumber(text, 23, 2);
        if ((sign != '+' && sign != '-') || text[22] != ':' || !oh || !om || *oh > 23 || *om > 59) {
            return std::nullopt;
        }
        offset = hours{*oh} + minutes{*om};
        if (sign == '-') {
            offset = -offset;
        }
    }
    const sys_seconds local = sys_days{date} + hours{*h} + minutes{*mi} + seconds{*s};
    return Timestamp{local - offset};
}

} // namespace kestrelvane::Rfc3339
