#pragma once

#include <QHash>
#include <QImage>
#include <QObject>
#include <QString>

#include <atomic>
#include <filesystem>
#include <memory>

namespace kestrelvane {

class BackgroundWork;

/// Small previews of photos and videos, decoded on a few worker threads and
/// delivered on the owner's thread through thumbnailReady(). Requests wait in
/// line for a free worker, so a folder of thousands of files decodes only a
/// few at a time, and each decoder scales down while (or right after) it
/// decodes, so no full-size image outlives its own request. The workers run
/// at low priority: the window and a send come first.
class ThumbnailProvider : public QObject {
    Q_OBJECT
public:
    static constexpr int defaultThreads = 2;

    explicit ThumbnailProvider(int maxThreads = defaultThreads, QObject* parent = nullptr);
    /// Drops the requests still waiting and waits for those being decoded.
    ~ThumbnailProvider() override;

    /// Asks for a thumbnail of `file` no larger than `pixelSize` square; its
    /// image arrives with `id` unless cancelled first. Files that give no
    /// image deliver nothing.
    void request(const QString& id, const std::filesystem::path& file, int pixelSize);
    /// The request for `id` will deliver nothing; if it has not started it never decodes.
    void cancel(const QString& id);
    void cancelAll();
    /// Waits for every request to finish; false when `msecs` ran out first.
    bool waitForDone(int msecs = -1);

    /// The thumbnail of `file`, at most `pixelSize` on its longer side and with
    /// its aspect ratio kept; null when the file gives none. Any thread.
    static QImage generate(const std::filesystem::path& file, int pixelSize);
    /// `points` at the primary screen's pixel ratio, or at 2 without a screen.
    static int pixelSizeFor(int points);

signals:
    void thumbnailReady(const QString& id, const QImage& image);

private:
    using Token = std::shared_ptr<std::atomic<bool>>; // set: cancelled

    void finished(const QString& id, const Token& token, const QImage& image);

    std::unique_ptr<BackgroundWork> work_;
    QHash<QString, Token> waiting_; // owner's thread only
};

} // namespace kestrelvane
