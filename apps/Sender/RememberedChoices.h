#pragma once

#include <QSettings>
#include <QString>
#include <QStringList>

#include <optional>

namespace kestrelvane {

/// What the window keeps between runs, in the standard Qt settings file
/// ($XDG_CONFIG_HOME/Kestrelvane/Kestrelvane.conf): the destination last
/// sent to and the album names recently sent with, newest first. Nothing
/// else; forget() removes both.
class RememberedChoices {
public:
    /// A destination as the window names it: `key` is the destination's
    /// text (empty for the iPhone on USB), `name` what it announces.
    struct Place {
        QString key;
        QString name;
        friend bool operator==(const Place&, const Place&) = default;
    };

    static constexpr int maxAlbums = 8;

    std::optional<Place> lastDestination() const;
    void rememberDestination(const Place& place);

    QStringList recentAlbums() const;
    /// Puts `album` (trimmed; nothing when empty) first, once.
    void rememberAlbum(const QString& album);

    void forget();

private:
    QSettings settings_{QStringLiteral("Kestrelvane"), QStringLiteral("Kestrelvane")};
};

} // namespace kestrelvane
