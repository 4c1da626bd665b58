#pragma once

#include <QString>

namespace kestrelvane {

/// Shows a notification on the desktop through the freedesktop notification
/// service on the session bus (org.freedesktop.Notifications). The call is
/// asynchronous, so the GUI thread never waits for the desktop; without a
/// session bus or a notification service, nothing is shown and nothing fails.
class DesktopNotifier {
public:
    void notify(const QString& summary, const QString& body) const;
};

} // namespace kestrelvane
