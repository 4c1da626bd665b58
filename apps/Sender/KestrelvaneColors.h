#pragma once

#include <QColor>

namespace kestrelvane::KestrelvaneColors {

/// The interface's fixed palette, sRGB and fully opaque. Each colour is made
/// once, on first use (thread-safe), and only read after that.
const QColor& bg();
const QColor& ink();
const QColor& muted();
const QColor& accent();
const QColor& ok();

} // namespace kestrelvane::KestrelvaneColors
