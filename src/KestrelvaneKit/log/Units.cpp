#include "KestrelvaneKit/log/Units.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <locale.h>

namespace kestrelvane::Units {

std::string fixed(double value, int decimals) {
    static const locale_t cLocale = ::newlocale(LC_NUMERIC_MASK, "C", nullptr);
    const locale_t previous = ::uselocale(cLocale);
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    ::uselocale(previous);
    return text;
}

std::string megabytes(double bytes, int decimals, std::string_view separator) {
    return fixed(bytes / bytesPerMB, decimals) + std::string(separator) + "MB";
}

std::string rate(double bytes, double seconds, int decimals, std::string_view separator) {
    const double perSecond = seconds > 0 ? bytes / bytesPerMB / seconds : 0.0;
    return fixed(perSecond, decimals) + std::string(separator) + "MB/s";
}

std::string clock(double seconds) {
    const long long whole = std::max(0LL, std::llround(seconds));
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    return text;
}

} // namespace kestrelvane::Units
