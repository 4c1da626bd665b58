#include "Sender/QueueRowDelegate.h"

#include "KestrelvaneKit/log/Units.h"
#include "Sender/KestrelvaneColors.h"

#include <QAbstractItemView>
#include <QHelpEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>

namespace kestrelvane {

namespace {

using Kind = TransferQueue::Status::Kind;

constexpr int thumbnailSide = 26;
constexpr int statusWidth = 80;
constexpr int spacing = 10;

QFont captionFont(const QFont& base) {
    QFont font = base;
    font.setPointSizeF(base.pointSizeF() * 0.85);
    return font;
}

/// The status label at the trailing end of `row`.
QRect statusRect(const QRect& row) {
    return {row.right() - statusWidth + 1, row.top(), statusWidth, row.height()};
}

QString statusText(Kind kind) {
    switch (kind) {
    case Kind::queued:
        return QStringLiteral("queued");
    case Kind::sending:
        return QStringLiteral("sending…");
    case Kind::saved:
        return QStringLiteral("saved ✓");
    case Kind::failed:
        return QStringLiteral("failed ⚠");
    }
    return {};
}

QColor statusColor(Kind kind) {
    switch (kind) {
    case Kind::queued:
        return KestrelvaneColors::muted();
    case Kind::saved:
        return KestrelvaneColors::ok();
    case Kind::sending:
    case Kind::failed:
        return KestrelvaneColors::accent();
    }
    return KestrelvaneColors::muted();
}

Kind kindOf(const QModelIndex& index) {
    const QString name = index.data(TransferQueue::StatusRole).toString();
    for (const Kind kind : {Kind::queued, Kind::sending, Kind::saved, Kind::failed}) {
        if (TransferQueue::statusName(kind) == name) {
            return kind;
        }
    }
    return Kind::queued;
}

} // namespace

QString QueueRowDelegate::statusHelp(const QModelIndex& index) {
    return kindOf(index) == Kind::failed ? index.data(TransferQueue::StatusMessageRole).toString()
                                         : QString();
}

QSize QueueRowDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    const int text = option.fontMetrics.height();
    return {option.rect.width(), std::max(thumbnailSide, text) + 8};
}

void QueueRowDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);

    if (option.state & QStyle::State_Selected) {
        QColor selected = KestrelvaneColors::accent();
        selected.setAlphaF(0.18F);
        painter->setPen(Qt::NoPen);
        painter->setBrush(selected);
        painter->drawRoundedRect(option.rect.adjusted(2, 1, -2, -1), 5, 5);
    }

    const QRect row = option.rect.adjusted(8, 0, -8, 0);
    const QRect thumb(row.left(), row.center().y() - thumbnailSide / 2, thumbnailSide,
                      thumbnailSide);
    QPainterPath rounded;
    rounded.addRoundedRect(thumb, 4, 4);
    const QImage image = index.data(TransferQueue::ThumbnailRole).value<QImage>();
    if (image.isNull()) {
        QColor placeholder = KestrelvaneColors::muted();
        placeholder.setAlphaF(0.15F);
        painter->fillPath(rounded, placeholder);
    } else {
        // Scaled to fill the square, the overflow cut away by the rounded clip.
        const QSize filled = image.size().scaled(thumb.size(), Qt::KeepAspectRatioByExpanding);
        QRect target(QPoint(), filled);
        target.moveCenter(thumb.center());
        painter->save();
        painter->setClipPath(rounded);
        painter->drawImage(target, image);
        painter->restore();
    }

    const Kind kind = kindOf(index);
    const QRect status = statusRect(row);
    const QFont caption = captionFont(option.font);
    painter->setFont(caption);
    painter->setPen(statusColor(kind));
    painter->drawText(status, Qt::AlignRight | Qt::AlignVCenter, statusText(kind));

    // Right-aligned so that sizes line up from row to row.
    const QString size = QString::fromStdString(
        Units::megabytes(static_cast<double>(index.data(TransferQueue::SizeRole).toLongLong()), 0));
    const int sizeWidth = QFontMetrics(caption).horizontalAdvance(size);
    const QRect sizeRect(status.left() - spacing - sizeWidth, row.top(), sizeWidth, row.height());
    painter->setPen(KestrelvaneColors::muted());
    painter->drawText(sizeRect, Qt::AlignRight | Qt::AlignVCenter, size);

    const QRect name(thumb.right() + 1 + spacing, row.top(),
                     sizeRect.left() - spacing - thumb.right() - 1 - spacing, row.height());
    painter->setFont(option.font);
    painter->setPen(KestrelvaneColors::ink());
    const QString text = index.data(TransferQueue::NameRole).toString();
    painter->drawText(name, Qt::AlignLeft | Qt::AlignVCenter,
                      option.fontMetrics.elidedText(text, Qt::ElideMiddle, name.width()));

    // The bytes of a file on its way, as a bar along the foot of its row.
    if (const QVariant done = index.data(TransferQueue::ProgressRole); done.isValid()) {
        const QRect track(name.left(), option.rect.bottom() - 3, row.right() - name.left() + 1, 3);
        QColor groove = KestrelvaneColors::accent();
        groove.setAlphaF(0.15F);
        painter->setPen(Qt::NoPen);
        painter->setBrush(groove);
        painter->drawRoundedRect(track, 1.5, 1.5);
        QRect bar = track;
        bar.setWidth(static_cast<int>(track.width() * done.toDouble()));
        painter->setBrush(KestrelvaneColors::accent());
        painter->drawRoundedRect(bar, 1.5, 1.5);
    }
    painter->restore();
}

bool QueueRowDelegate::helpEvent(QHelpEvent* event, QAbstractItemView* view,
                                 const QStyleOptionViewItem& option, const QModelIndex& index) {
    if (event->type() == QEvent::ToolTip) {
        // The reason belongs to the status label.
        const QRect status = statusRect(option.rect.adjusted(8, 0, -8, 0));
        const QString help = status.contains(event->pos()) ? statusHelp(index) : QString();
        if (help.isEmpty()) {
            QToolTip::hideText();
        } else {
            QToolTip::showText(event->globalPos(), help, view);
        }
        event->accept();
        return true;
    }
    return QStyledItemDelegate::helpEvent(event, view, option, index);
}

} // namespace kestrelvane
