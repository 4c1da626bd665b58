#include "Sender/RememberedChoices.h"

namespace kestrelvane {

namespace {

const QString destinationKey = QStringLiteral("destination/key");
const QString destinationName = QStringLiteral("destination/name");
const QString albumsKey = QStringLiteral("albums/recent");

} // namespace

std::optional<RememberedChoices::Place> RememberedChoices::lastDestination() const {
    if (!settings_.contains(destinationKey)) {
        return std::nullopt;
    }
    return Place{settings_.value(destinationKey).toString(),
                 settings_.value(destinationName).toString()};
}

void RememberedChoices::rememberDestination(const Place& place) {
    settings_.setValue(destinationKey, place.key);
    settings_.setValue(destinationName, place.name);
}

QStringList RememberedChoices::recentAlbums() const {
    return settings_.value(albumsKey).toStringList();
}

void RememberedChoices::rememberAlbum(const QString& album) {
    const QString trimmed = album.trimmed();
    if (trimmed.isEmpty()) {
        return;
    }
    QStringList albums = recentAlbums();
    albums.removeAll(trimmed);
    albums.prepend(trimmed);
    while (albums.size() > maxAlbums) {
        albums.removeLast();
    }
    settings_.setValue(albumsKey, albums);
}

void RememberedChoices::forget() {
    settings_.remove(QStringLiteral("destination"));
    settings_.remove(QStringLiteral("albums"));
}

} // namespace kestrelvane
