#include "Sender/DesktopNotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>

namespace kestrelvane {

void DesktopNotifier::notify(const QString& summary, const QString& body) const {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout
    call << QStringLiteral("Kestrelvane") << 0U << QStringLiteral("kestrelvane") << summary << body
         << QStringList() << QVariantMap() << -1;
    bus.send(call); // no reply awaited: the notification id is of no use here
}

} // namespace kestrelvane
