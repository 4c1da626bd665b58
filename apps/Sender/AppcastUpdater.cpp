#include "Sender/AppcastUpdater.h"

#include <QFile>
#include <QHash>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>
#include <QXmlStreamReader>

#ifndef KV_APPCAST_URL
#define KV_APPCAST_URL ""
#endif
#ifndef KV_VERSION
#define KV_VERSION "0"
#endif

namespace kestrelvane {

namespace {

constexpr auto sparkleNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";
constexpr int maxAppcastBytes = 4 * 1024 * 1024;

bool isSparkle(QStringView namespaceUri, QStringView name, const char* wanted) {
    return namespaceUri == QLatin1String(sparkleNamespace) && name == QLatin1String(wanted);
}

QString sparkleAttribute(const QXmlStreamAttributes& attributes, const char* name) {
    for (const QXmlStreamAttribute& attribute : attributes) {
        if (isSparkle(attribute.namespaceUri(), attribute.name(), name)) {
            return attribute.value().toString().trimmed();
        }
    }
    return {};
}

/// Runs of digits and runs of anything else; dots only separate.
QStringList versionParts(const QString& version) {
    QStringList parts;
    static const QRegularExpression part(QStringLiteral("\\d+|[^\\d.]+"));
    for (auto match = part.globalMatch(version); match.hasNext();) {
        parts << match.next().captured();
    }
    return parts;
}

bool isNumber(const QString& part) {
    return !part.isEmpty() && part.front().isDigit();
}

/// A desktop entry value with its escapes (\s \n \t \r \\) decoded; any other
/// backslash is kept as it is.
QString unescapeDesktopValue(QStringView raw) {
    static const QHash<QChar, QChar> escapes{
        {u's', u' '}, {u'n', u'\n'}, {u't', u'\t'}, {u'r', u'\r'}, {u'\\', u'\\'}};
    QString value;
    value.reserve(raw.size());
    for (qsizetype i = 0; i < raw.size(); ++i) {
        if (raw[i] == u'\\' && i + 1 < raw.size() && escapes.contains(raw[i + 1])) {
            value += escapes.value(raw[++i]);
        } else {
            value += raw[i];
        }
    }
    return value;
}

/// The value of `key` in the [Desktop Entry] group of the file at `path`.
/// Desktop entries are not INI files: a value runs verbatim to the end of its
/// line, commas and semicolons included.
QString desktopEntryValue(const QString& path, QStringView key) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    bool inEntry = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(u'#')) {
            continue;
        }
        if (line.startsWith(u'[')) {
            inEntry = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (inEntry && equals > 0 && QStringView(line).first(equals).trimmed() == key) {
            return unescapeDesktopValue(QStringView(line).sliced(equals + 1).trimmed());
        }
    }
    return {};
}

} // namespace

QUrl AppcastUpdater::configuredFeed() {
    if (const QString fromEnvironment = qEnvironmentVariable("KESTRELVANE_APPCAST_URL");
        !fromEnvironment.isEmpty()) {
        return QUrl(fromEnvironment);
    }
    const QString entry = QStandardPaths::locate(QStandardPaths::ApplicationsLocation,
                                                 QStringLiteral("kestrelvane.desktop"));
    if (!entry.isEmpty()) {
        const QString url = desktopEntryValue(entry, u"X-Kestrelvane-Appcast-URL");
        if (!url.isEmpty()) {
            return QUrl(url);
        }
    }
    return QUrl(QStringLiteral(KV_APPCAST_URL));
}

QString AppcastUpdater::currentVersion() {
    return QStringLiteral(KV_VERSION);
}

AppcastUpdater::AppcastUpdater(QUrl feed, QString current, QObject* parent)
    : QObject(parent), feed_(std::move(feed)), current_(std::move(current)) {
    qRegisterMetaType<Result>();
}

void AppcastUpdater::start() {
    // Like Sparkle's updater, it becomes able to check only once it has started up.
    QTimer::singleShot(0, this, [this] {
        started_ = true;
        updateCanCheck();
    });
}

void AppcastUpdater::updateCanCheck() {
    const bool can = started_ && !checking_ && feed_.isValid() && !feed_.isEmpty();
    if (can != canCheck_) {
        canCheck_ = can;
        emit canCheckForUpdatesChanged();
    }
}

void AppcastUpdater::checkForUpdates() {
    if (!canCheck_) {
        return;
    }
    checking_ = true;
    updateCanCheck();
    QNetworkRequest request(feed_);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(30'000);
    QNetworkReply* reply = network_.get(request);
    // A feed is small; anything far larger is not one, and is not read into memory.
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > maxAppcastBytes) {
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        Result result;
        if (reply->error() != QNetworkReply::NoError) {
            result.message = reply->errorString();
        } else if (auto latest = latestRelease(reply->readAll())) {
            result.latest = *latest;
            result.kind = compareVersions(latest->version, current_) > 0
                              ? Result::Kind::updateAvailable
                              : Result::Kind::upToDate;
        } else {
            result.message = QStringLiteral("The update feed lists no release.");
        }
        checking_ = false;
        updateCanCheck();
        emit checkFinished(result);
    });
}

std::optional<AppcastUpdater::Release> AppcastUpdater::latestRelease(const QByteArray& appcast) {
    std::optional<Release> latest;
    QXmlStreamReader xml(appcast);
    std::optional<Release> item;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            const QStringView name = xml.name();
            const QStringView space = xml.namespaceUri();
            if (space.isEmpty() && name == QLatin1String("item")) {
                item = Release{};
            } else if (!item) {
                continue;
            } else if (space.isEmpty() && name == QLatin1String("title")) {
                item->title = xml.readElementText().trimmed();
            } else if (space.isEmpty() && name == QLatin1String("enclosure")) {
                const QXmlStreamAttributes attributes = xml.attributes();
                item->downloadUrl = QUrl(attributes.value(QStringLiteral("url")).toString());
                if (const QString version = sparkleAttribute(attributes, "version");
                    !version.isEmpty()) {
                    item->version = version;
                }
                if (const QString shortVersion = sparkleAttribute(attributes, "shortVersionString");
                    !shortVersion.isEmpty()) {
                    item->shortVersion = shortVersion;
                }
            } else if (isSparkle(space, name, "version")) {
                item->version = xml.readElementText().trimmed();
            } else if (isSparkle(space, name, "shortVersionString")) {
                item->shortVersion = xml.readElementText().trimmed();
            } else if (isSparkle(space, name, "releaseNotesLink")) {
                item->releaseNotesUrl = QUrl(xml.readElementText().trimmed());
            }
        } else if (xml.isEndElement() && xml.namespaceUri().isEmpty() &&
                   xml.name() == QLatin1String("item") && item) {
            if (!item->version.isEmpty()) {
                if (item->shortVersion.isEmpty()) {
                    item->shortVersion = item->version;
                }
                if (!latest || compareVersions(item->version, latest->version) > 0) {
                    latest = item;
                }
            }
            item.reset();
        }
    }
    if (xml.hasError()) {
        return std::nullopt;
    }
    return latest;
}

int AppcastUpdater::compareVersions(const QString& a, const QString& b) {
    const QStringList left = versionParts(a);
    const QStringList right = versionParts(b);
    const qsizetype common = std::min(left.size(), right.size());
    for (qsizetype i = 0; i < common; ++i) {
        const bool leftNumber = isNumber(left[i]);
        const bool rightNumber = isNumber(right[i]);
        if (leftNumber && rightNumber) {
            const qulonglong l = left[i].toULongLong();
            const qulonglong r = right[i].toULongLong();
            if (l != r) {
                return l < r ? -1 : 1;
            }
        } else if (leftNumber != rightNumber) {
            return leftNumber ? 1 : -1; // 1.0.1 is newer than 1.0b1
        } else if (const int order = QString::compare(left[i], right[i], Qt::CaseInsensitive);
                   order != 0) {
            return order < 0 ? -1 : 1;
        }
    }
    if (left.size() == right.size()) {
        return 0;
    }
    // A longer version is newer when it goes on with a number (1.0.1 after 1.0)
    // and older when it goes on with a word (1.0b1 before 1.0).
    const bool leftLonger = left.size() > right.size();
    const QString& next = leftLonger ? left[common] : right[common];
    const int longerIsNewer = isNumber(next) ? 1 : -1;
    return leftLonger ? longerIsNewer : -longerIsNewer;
}

} // namespace kestrelvane
