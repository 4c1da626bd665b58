#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <QUrl>

#include <optional>

namespace kestrelvane {

/// Checks a Sparkle-format appcast (an RSS feed whose items carry
/// `sparkle:version`, `sparkle:shortVersionString` and an enclosure) for a
/// release newer than this one. It can check once started, while no check
/// runs, and only when a feed is configured.
class AppcastUpdater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
public:
    struct Release {
        QString version;      ///< machine version, compared
        QString shortVersion; ///< shown to the user; the version when the feed gives none
        QString title;
        QUrl downloadUrl;
        QUrl releaseNotesUrl;
    };

    struct Result {
        enum class Kind { upToDate, updateAvailable, failed };
        Kind kind = Kind::failed;
        Release latest{};  ///< the newest release in the feed (not for failed)
        QString message{}; ///< why the check failed
    };

    /// The feed from KESTRELVANE_APPCAST_URL, else the installed desktop
    /// entry's X-Kestrelvane-Appcast-URL, else the one built in; may be empty.
    static QUrl configuredFeed();
    /// This build's version.
    static QString currentVersion();

    explicit AppcastUpdater(QUrl feed = configuredFeed(), QString current = currentVersion(),
                            QObject* parent = nullptr);

    /// Readies the updater; it can check from the next turn of the event loop.
    void start();
    bool canCheckForUpdates() const noexcept { return canCheck_; }
    /// Fetches the feed and reports through checkFinished(); nothing unless it can check.
    void checkForUpdates();

    /// The release with the highest version in `appcast`; nothing when there is none.
    static std::optional<Release> latestRelease(const QByteArray& appcast);
    /// Negative, zero or positive as `a` is older than, the same as or newer than `b`.
    static int compareVersions(const QString& a, const QString& b);

signals:
    void canCheckForUpdatesChanged();
    void checkFinished(const kestrelvane::AppcastUpdater::Result& result);

private:
    void updateCanCheck();

    QNetworkAccessManager network_;
    const QUrl feed_;
    const QString current_;
    bool started_ = false;
    bool checking_ = false;
    bool canCheck_ = false;
};

} // namespace kestrelvane

Q_DECLARE_METATYPE(kestrelvane::AppcastUpdater::Result)
