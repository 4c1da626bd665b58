#pragma once

#include "Sender/TransferQueue.h"

#include <QStyledItemDelegate>

namespace kestrelvane {

/// Draws one queued file as a row: thumbnail, name, size and status, and
/// gives a failed file's reason as the status' tooltip.
class QueueRowDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;

    /// The status' hover text: the failure reason, empty for the other states.
    static QString statusHelp(const QModelIndex& index);
};

} // namespace kestrelvane
