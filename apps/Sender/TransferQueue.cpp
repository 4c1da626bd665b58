#include "Sender/TransferQueue.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/intake/QueuePlanner.h"
#include "KestrelvaneKit/log/Units.h"
#include "Sender/BackgroundWork.h"
#include "Sender/ThumbnailProvider.h"

#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <system_error>

namespace kestrelvane {

namespace fs = std::filesystem;

namespace {

/// What a screen reader says of a row: its name, size and state in words,
/// the share sent of a file on its way and the reason of a failure.
QString accessibleText(const TransferQueue::Item& item) {
    QString state = TransferQueue::statusName(item.status.kind);
    if (item.status.kind == TransferQueue::Status::Kind::sending && item.bytesDone > 0 &&
        item.size > 0) {
        state += QStringLiteral(", %1 %").arg(
            std::min<std::int64_t>(100, item.bytesDone * 100 / item.size));
    } else if (item.status.kind == TransferQueue::Status::Kind::failed &&
               !item.status.message.isEmpty()) {
        state += QStringLiteral(": ") + item.status.message;
    }
    return QStringLiteral("%1, %2, %3")
        .arg(item.name, QString::fromStdString(Units::megabytes(static_cast<double>(item.size), 0)),
             state);
}

QString idOf(const fs::path& url) {
    std::error_code ignored;
    return QString::fromStdString(fs::absolute(url, ignored).lexically_normal().string());
}

TransferQueue::Item makeItem(fs::path url, std::int64_t size, MediaType type) {
    QString id = idOf(url);
    QString name = QString::fromStdString(url.filename().string());
    return {std::move(id), std::move(url), std::move(name), size, type};
}

} // namespace

TransferQueue::TransferQueue(QObject* parent)
    : QAbstractListModel(parent), planner_(std::make_unique<BackgroundWork>(1)),
      thumbnails_(std::make_unique<ThumbnailProvider>()) {
    connect(thumbnails_.get(), &ThumbnailProvider::thumbnailReady, this,
            &TransferQueue::applyThumbnail);
}

TransferQueue::~TransferQueue() {
    planner_.reset(); // a drop being planned finishes; its result is dropped
    thumbnails_.reset();
}

int TransferQueue::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(items_.size());
}

QVariant TransferQueue::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() < 0 ||
        static_cast<std::size_t>(index.row()) >= items_.size()) {
        return {};
    }
    const Item& item = items_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole:
        return item.name;
    case Qt::AccessibleTextRole:
        return accessibleText(item);
    case IdRole:
        return item.id;
    case SizeRole:
        return QVariant::fromValue<qint64>(item.size);
    case MediaTypeRole:
        return QString::fromUtf8(wireString(item.mediaType));
    case StatusRole:
        return statusName(item.status.kind);
    case ProgressRole:
        if (item.status.kind == Status::Kind::sending && item.bytesDone > 0 && item.size > 0) {
            return std::min(1.0,
                            static_cast<double>(item.bytesDone) / static_cast<double>(item.size));
        }
        return {};
    case StatusMessageRole:
        return item.status.message;
    case Qt::DecorationRole:
    case ThumbnailRole:
        return item.thumbnail.isNull() ? QVariant() : QVariant(item.thumbnail);
    default:
        return {};
    }
}

QHash<int, QByteArray> TransferQueue::roleNames() const {
    return {{IdRole, "id"},
            {NameRole, "name"},
            {SizeRole, "size"},
            {MediaTypeRole, "mediaType"},
            {StatusRole, "status"},
            {StatusMessageRole, "statusMessage"},
            {ThumbnailRole, "thumbnail"},
            {ProgressRole, "progress"}};
}

QString TransferQueue::statusName(Status::Kind kind) {
    switch (kind) {
    case Status::Kind::queued:
        return QStringLiteral("queued");
    case Status::Kind::sending:
        return QStringLiteral("sending");
    case Status::Kind::saved:
        return QStringLiteral("saved");
    case Status::Kind::failed:
        return QStringLiteral("failed");
    }
    return {};
}

std::int64_t TransferQueue::totalBytes() const {
    std::int64_t total = 0;
    for (const Item& item : items_) {
        total += item.size;
    }
    return total;
}

void TransferQueue::add(const std::vector<fs::path>& urls) {
    pendingDrops_.push_back(urls);
    if (!planning_) {
        planNext();
    }
}

// One drop at a time: the next is planned against the queue as the previous
// one left it, so two quick drops of the same file add it once.
void TransferQueue::planNext() {
    if (pendingDrops_.empty()) {
        planning_ = false;
        return;
    }
    planning_ = true;
    std::vector<fs::path> adding = std::move(pendingDrops_.front());
    pendingDrops_.pop_front();
    std::vector<fs::path> queued;
    queued.reserve(items_.size());
    for (const Item& item : items_) {
        if (!item.unreadable) { // dropped again, it may be readable now
            queued.push_back(item.url);
        }
    }
    planner_->runThenDeliver([this, adding = std::move(adding), queued = std::move(queued),
                              generation = generation_]() -> std::function<void()> {
        std::vector<Item> planned = plan(adding, queued);
        return [this, planned = std::move(planned), generation]() mutable {
            appendPlanned(std::make_shared<std::vector<Item>>(std::move(planned)), 0, generation);
        };
    });
}

std::vector<TransferQueue::Item> TransferQueue::plan(const std::vector<fs::path>& adding,
                                                     const std::vector<fs::path>& queued) {
    std::vector<fs::path> urls;
    std::vector<QueuePlanner::Unreadable> unreadable;
    try {
        urls = QueuePlanner::plan(adding, queued, &unreadable);
    } catch (const std::exception&) {
        return {}; // a drop that cannot be planned adds nothing
    }
    std::vector<Item> planned;
    planned.reserve(urls.size() + unreadable.size());
    for (fs::path& url : urls) {
        const std::optional<MediaType> type = MediaScanner::mediaType(url);
        if (!type) {
            continue;
        }
        std::error_code error;
        const std::uintmax_t size = fs::file_size(url, error);
        planned.push_back(
            makeItem(std::move(url), error ? 0 : static_cast<std::int64_t>(size), *type));
    }
    for (const auto& [url, error] : unreadable) {
        Item& item = planned.emplace_back(
            makeItem(url, 0, MediaScanner::mediaType(url).value_or(MediaType::photo)));
        item.status = Status::failed(QString::fromStdString(error.message()));
        item.unreadable = true;
    }
    return planned;
}

// A big drop is appended a slice at a time, with the event loop running in
// between, so the window keeps drawing and answering while thousands of rows
// arrive. Every item is still announced on its own, in order.
void TransferQueue::appendPlanned(std::shared_ptr<std::vector<Item>> planned, std::size_t from,
                                  std::uint64_t generation) {
    if (generation != generation_) {
        return; // the queue was cleared since this drop was planned
    }
    const int pixelSize = ThumbnailProvider::pixelSizeFor(thumbnailPoints);
    if (from == 0) {
        // Grown once up front: regrowing mid-drop is a stall of its own.
        items_.reserve(items_.size() + planned->size());
        rowById_.reserve(static_cast<qsizetype>(items_.size() + planned->size()));
    }
    QElapsedTimer slice;
    slice.start();
    std::size_t next = from;
    for (; next < planned->size(); ++next) {
        if (next > from && slice.elapsed() >= appendSliceMilliseconds) {
            break;
        }
        Item& item = (*planned)[next];
        if (rowById_.contains(item.id)) {
            // Only an unreadable row is planned again: it stays, or gives way.
            if (item.unreadable) {
                continue;
            }
            remove({item.id});
        }
        unreadableCount_ += static_cast<int>(item.unreadable);
        const int row = static_cast<int>(items_.size());
        beginInsertRows({}, row, row);
        rowById_.insert(item.id, items_.size());
        if (!item.unreadable) {
            thumbnails_->request(item.id, item.url, pixelSize);
        }
        items_.push_back(std::move(item));
        endInsertRows();
        if (generation != generation_) {
            return; // a slot of the new row cleared the queue
        }
    }
    if (next < planned->size()) {
        QTimer::singleShot(0, this,
                           [this, planned = std::move(planned), next, generation]() mutable {
                               appendPlanned(std::move(planned), next, generation);
                           });
        return;
    }
    emit addFinished();
    planNext();
}

void TransferQueue::remove(const std::set<QString>& ids) {
    bool removed = false;
    for (std::size_t row = items_.size(); row-- > 0;) {
        if (ids.count(items_[row].id) != 0) {
            thumbnails_->cancel(items_[row].id);
            beginRemoveRows({}, static_cast<int>(row), static_cast<int>(row));
            savedCount_ -= static_cast<int>(items_[row].status.kind == Status::Kind::saved);
            unreadableCount_ -= static_cast<int>(items_[row].unreadable);
            items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(row));
            removed = true;
            endRemoveRows();
        }
    }
    if (removed) {
        reindex();
    }
}

void TransferQueue::reindex() {
    rowById_.clear();
    for (std::size_t row = 0; row < items_.size(); ++row) {
        rowById_.insert(items_[row].id, row);
    }
}

void TransferQueue::clear() {
    // Drops being planned or appended are cleared too: their rows must not
    // come back after the queue has been emptied.
    ++generation_;
    pendingDrops_.clear();
    planner_->clearWaiting();
    planning_ = false;
    if (items_.empty()) {
        return;
    }
    thumbnails_->cancelAll();
    beginResetModel();
    items_.clear();
    savedCount_ = 0;
    unreadableCount_ = 0;
    rowById_.clear();
    endResetModel();
}

std::vector<fs::path> TransferQueue::unsentURLs() const {
    std::vector<fs::path> urls;
    for (const Item& item : items_) {
        if (item.status.kind != Status::Kind::saved && !item.unreadable) {
            urls.push_back(item.url);
        }
    }
    return urls;
}

void TransferQueue::changeStatus(std::size_t row, const Status& status) {
    const bool wasSaved = items_[row].status.kind == Status::Kind::saved;
    const bool isSaved = status.kind == Status::Kind::saved;
    savedCount_ += static_cast<int>(isSaved) - static_cast<int>(wasSaved);
    items_[row].status = status;
    items_[row].bytesDone = 0;
    const QModelIndex changed = index(static_cast<int>(row));
    emit dataChanged(changed, changed,
                     {StatusRole, StatusMessageRole, ProgressRole, Qt::AccessibleTextRole});
}

void TransferQueue::markSending(const std::vector<std::filesystem::path>& urls) {
    const std::set<std::filesystem::path> sending(urls.begin(), urls.end());
    for (std::size_t row = 0; row < items_.size(); ++row) {
        if (sending.count(items_[row].url) != 0) {
            changeStatus(row, Status::sending());
        }
    }
}

void TransferQueue::setStatus(const Status& status, const std::filesystem::path& url) {
    for (std::size_t row = 0; row < items_.size(); ++row) {
        if (items_[row].url == url) {
            changeStatus(row, status);
            return;
        }
    }
}

void TransferQueue::revertSending() {
    for (std::size_t row = 0; row < items_.size(); ++row) {
        if (items_[row].status.kind == Status::Kind::sending) {
            changeStatus(row, Status::queued());
        }
    }
}

void TransferQueue::setBytesDone(const std::filesystem::path& url, std::int64_t bytes) {
    // By id through the index, as thumbnails: called for every file of a send.
    const auto found = rowById_.constFind(idOf(url));
    if (found == rowById_.constEnd() || found.value() >= items_.size()) {
        return;
    }
    Item& item = items_[found.value()];
    if (item.url == url && item.status.kind == Status::Kind::sending && item.bytesDone != bytes) {
        item.bytesDone = bytes;
        const QModelIndex changed = index(static_cast<int>(found.value()));
        emit dataChanged(changed, changed, {ProgressRole, Qt::AccessibleTextRole});
    }
}

void TransferQueue::applyThumbnail(const QString& id, const QImage& image) {
    // By id through the index: thumbnails of a big drop arrive by the
    // thousand, and a scan of the queue for each would stall the window.
    const auto found = rowById_.constFind(id);
    if (found == rowById_.constEnd() || found.value() >= items_.size() ||
        items_[found.value()].id != id) {
        return;
    }
    const std::size_t row = found.value();
    items_[row].thumbnail = image;
    const QModelIndex changed = index(static_cast<int>(row));
    emit dataChanged(changed, changed, {Qt::DecorationRole, ThumbnailRole});
}

} // namespace kestrelvane
