#pragma once

#include "Sender/TransferQueue.h"

#include <QColor>
#include <QStyledItemDelegate>

#include <cstdint>

namespace kestrelvane {

/// Draws one queued file as a row: thumbnail, name, size and status, and
/// gives a failed file's reason as the status' tooltip.
class QueueRowDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    static constexpr int thumbnailSide = 26;
    static constexpr int statusWidth = 80;
    static constexpr int spacing = 10;

    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;

    /// "%.0f MB" of mebibytes: 1,572,864 bytes is "2 MB".
    static QString sizeText(std::int64_t bytes);
    static QString statusText(TransferQueue::Status::Kind kind);
    static QColor statusColor(TransferQueue::Status::Kind kind);
    /// The status' hover text: the failure reason, empty for the other states.
    static QString statusHelp(const QModelIndex& index);

private:
    static TransferQueue::Status::Kind kindOf(const QModelIndex& index);
};

} // namespace kestrelvane
