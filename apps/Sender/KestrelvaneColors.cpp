#include "Sender/KestrelvaneColors.h"

namespace kestrelvane::KestrelvaneColors {

const QColor& bg() {
    static const QColor colour(230, 235, 225);
    return colour;
}

const QColor& ink() {
    static const QColor colour(20, 32, 26);
    return colour;
}

const QColor& muted() {
    static const QColor colour(79, 93, 75);
    return colour;
}

const QColor& accent() {
    static const QColor colour(201, 120, 90);
    return colour;
}

const QColor& ok() {
    static const QColor colour(106, 138, 90);
    return colour;
}

} // namespace kestrelvane::KestrelvaneColors
