#pragma once

#include "KestrelvaneKit/wire/MediaType.h"

#include <QAbstractListModel>
#include <QHash>
#include <QImage>
#include <QString>

#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrelvane {

class BackgroundWork;
class ThumbnailProvider;

/// The files the user has put into the window, each with its send status and
/// a small thumbnail. Lives on the GUI thread; planning a drop, reading sizes
/// and decoding thumbnails happen on workers and come back here.
class TransferQueue : public QAbstractListModel {
    Q_OBJECT
public:
    struct Status {
        enum class Kind { queued, sending, saved, failed };

        static Status queued() { return {Kind::queued, {}}; }
        static Status sending() { return {Kind::sending, {}}; }
        static Status saved() { return {Kind::saved, {}}; }
        static Status failed(QString message) { return {Kind::failed, std::move(message)}; }

        Kind kind = Kind::queued;
        QString message{}; ///< the reason shown for `failed`; empty otherwise

        friend bool operator==(const Status&, const Status&) = default;
    };

    struct Item {
        QString id;                ///< absolute path with "." and ".." removed
        std::filesystem::path url; ///< as the planner returned it
        QString name;              ///< file name; acknowledgements address items by it
        std::int64_t size = 0;     ///< 0 when it could not be read
        MediaType mediaType = MediaType::photo;
        Status status{};
        QImage thumbnail{};      ///< null until one has been generated
        bool unreadable = false; ///< dropped but missing or unreadable: failed, never sent
        /// While sending: how much of the file the receiver has (held or sent).
        std::int64_t bytesDone = 0;
    };

    enum Role {
        IdRole = Qt::UserRole + 1,
        NameRole,
        SizeRole,
        MediaTypeRole,
        StatusRole, ///< "queued", "sending", "saved" or "failed"
        StatusMessageRole,
        ThumbnailRole,
        /// While the item is sending and bytes of it have gone: the share of
        /// it done, from 0 to 1; nothing otherwise.
        ProgressRole,
    };

    /// Thumbnails are `thumbnailPoints` square at the primary screen's pixel ratio.
    static constexpr int thumbnailPoints = 48;

    explicit TransferQueue(QObject* parent = nullptr);
    ~TransferQueue() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

    const std::vector<Item>& items() const noexcept { return items_; }
    /// Both kept up to date as items change, so that a window asking after
    /// every change does not scan the queue each time.
    int savedCount() const noexcept { return savedCount_; }
    /// Items a send would take: neither saved nor unreadable.
    int unsentCount() const noexcept {
        return static_cast<int>(items_.size()) - savedCount_ - unreadableCount_;
    }
    std::int64_t totalBytes() const;

    /// Adds the photos and videos among `urls` (folders expanded) that are not
    /// queued yet; a path that is missing or cannot be read joins as a failed
    /// item that says why, and is never sent. Returns at once: the drop is planned on a worker and
    /// its items are appended here one by one, a few milliseconds' worth per turn of the event
    /// loop; drops are planned one after the other, so a later drop sees everything an earlier one
    /// added.
    void add(const std::vector<std::filesystem::path>& urls);
    bool isPlanning() const noexcept { return planning_; }

    void remove(const std::set<QString>& ids);
    /// Empties the queue and cancels the drops still being planned or appended.
    void clear();
    std::vector<std::filesystem::path> unsentURLs() const;
    /// Marks the items at `urls` (as unsentURLs() gave them) as sending.
    void markSending(const std::vector<std::filesystem::path>& urls);
    /// Changes the item at `url`; nothing when there is none.
    void setStatus(const Status& status, const std::filesystem::path& url);
    void revertSending();
    /// How much of the item at `url`, sending, the receiver has now; nothing
    /// when there is no such item or it is not sending.
    void setBytesDone(const std::filesystem::path& url, std::int64_t bytes);

    /// Sets the thumbnail of the item `id` if it is still queued; a thumbnail
    /// for an item removed meanwhile is dropped.
    void applyThumbnail(const QString& id, const QImage& image);

    ThumbnailProvider& thumbnails() noexcept { return *thumbnails_; }

    static QString statusName(Status::Kind kind);

signals:
    /// A drop has been planned and all of its items appended; not for a drop
    /// that clear() cancelled.
    void addFinished();

private:
    /// Appending a drop yields to the event loop after this long.
    static constexpr int appendSliceMilliseconds = 5;

    void planNext();
    /// Appends `planned` from `from` on; calls itself again later for the rest.
    /// Stops as soon as the queue is cleared, `generation` being then out of date.
    void appendPlanned(std::shared_ptr<std::vector<Item>> planned, std::size_t from,
                       std::uint64_t generation);
    void changeStatus(std::size_t row, const Status& status);
    void reindex();
    static std::vector<Item> plan(const std::vector<std::filesystem::path>& adding,
                                  const std::vector<std::filesystem::path>& queued);

    std::vector<Item> items_;
    int savedCount_ = 0;                  // items whose status is saved
    int unreadableCount_ = 0;             // items that are unreadable
    QHash<QString, std::size_t> rowById_; // the row of each item's id
    std::deque<std::vector<std::filesystem::path>> pendingDrops_;
    bool planning_ = false;
    std::uint64_t generation_ = 0;            // bumped by clear(); older drops are dropped
    std::unique_ptr<BackgroundWork> planner_; // one thread: drops are planned in order
    std::unique_ptr<ThumbnailProvider> thumbnails_;
};

} // namespace kestrelvane
