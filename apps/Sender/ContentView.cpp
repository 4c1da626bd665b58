#include "Sender/ContentView.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "Sender/KestrelvaneColors.h"
#include "Sender/QueueRowDelegate.h"

#include <QAction>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileSystemModel>
#include <QFrame>
#include <QHBoxLayout>
#include <QHideEvent>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QPointer>
#include <QPushButton>
#include <QShowEvent>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace kestrelvane {

namespace fs = std::filesystem;
using Kind = UsbmuxdDiscovery::State::Kind;

namespace {

QString rgba(const QColor& colour, double opacity = 1.0) {
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(opacity);
}

QFont scaled(const QFont& base, double factor) {
    QFont font = base;
    font.setPointSizeF(base.pointSizeF() * factor);
    return font;
}

// The platform's text styles, relative to the body text.
QFont calloutFont(const QFont& base) {
    return scaled(base, 0.92);
}
QFont captionFont(const QFont& base) {
    return scaled(base, 0.85);
}

void setBackground(QWidget* widget, const QColor& colour) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::Window, colour);
    widget->setPalette(palette);
    widget->setAutoFillBackground(true);
}

void setTextColour(QWidget* widget, const QColor& colour) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, colour);
    palette.setColor(QPalette::Text, colour);
    widget->setPalette(palette);
}

/// A compact bordered button; `tint` colours its text.
void styleButton(QPushButton* button, const QColor& tint) {
    button->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; background: white; padding: 3px 8px; "
                       "border: 1px solid %3; border-radius: 5px; }"
                       "QPushButton:pressed { background: %4; }"
                       "QPushButton:disabled { color: %2; }")
            .arg(rgba(tint), rgba(tint, 0.4), rgba(KestrelvaneColors::ink(), 0.2),
                 rgba(KestrelvaneColors::ink(), 0.08)));
}

void tintAccent(QPushButton* button) {
    styleButton(button, KestrelvaneColors::accent());
}

QFrame* divider(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFixedHeight(1);
    line->setStyleSheet(
        QStringLiteral("background: %1; border: none;").arg(rgba(KestrelvaneColors::ink(), 0.12)));
    return line;
}

// Tight enough that the toolbar, status text included, fits the minimum width.
QHBoxLayout* barLayout(QWidget* bar, int spacing) {
    auto* row = new QHBoxLayout(bar);
    row->setSpacing(spacing);
    row->setContentsMargins(12, 10, 12, 10);
    return row;
}

QString shortcutText() {
    return QKeySequence(QKeySequence::Open).toString(QKeySequence::NativeText);
}

/// A file dialog that also accepts folders: a list of files opens as usual, and
/// folders selected in the list (with or without files) are taken as they are
/// instead of being entered. Double-clicking a folder still enters it.
class MediaFileDialog : public QFileDialog {
public:
    explicit MediaFileDialog(QWidget* parent) : QFileDialog(parent) {
        setOption(QFileDialog::DontUseNativeDialog);
        setFileMode(QFileDialog::ExistingFiles);
        setWindowTitle(QStringLiteral("Choose Photos, Videos or Folders"));
        QStringList patterns;
        for (const auto* extensions :
             {&MediaScanner::photoExtensions(), &MediaScanner::videoExtensions()}) {
            for (const auto& extension : *extensions) {
                patterns << QStringLiteral("*.") + QString::fromStdString(extension);
            }
        }
        std::sort(patterns.begin(), patterns.end());
        setNameFilters({QStringLiteral("Photos, videos and folders (%1)").arg(patterns.join(' ')),
                        QStringLiteral("All files (*)")});
        setLabelText(QFileDialog::Accept, QStringLiteral("Add"));
    }

    std::vector<fs::path> chosen;

    void accept() override {
        std::vector<fs::path> picked;
        bool folder = false;
        if (auto* view = findChild<QAbstractItemView*>(QStringLiteral("listView"))) {
            for (const QModelIndex& index : view->selectionModel()->selectedRows()) {
                const QString path = index.data(QFileSystemModel::FilePathRole).toString();
                if (path.isEmpty()) {
                    continue;
                }
                folder = folder || QFileInfo(path).isDir();
                picked.emplace_back(path.toStdString());
            }
        }
        if (folder) {
            chosen = std::move(picked);
            done(QDialog::Accepted);
            return;
        }
        QFileDialog::accept();
    }
};

} // namespace

ContentView::ContentView(QWidget* parent)
    : ContentView(UsbPhones::Address::fromEnvironment(), UsbmuxdDiscovery::defaultInterval,
                  parent) {
}

ContentView::ContentView(UsbPhones::Address usbmuxd, std::chrono::milliseconds discoveryInterval,
                         QWidget* parent)
    : QWidget(parent),
      discovery_(std::make_unique<UsbmuxdDiscovery>(std::move(usbmuxd), discoveryInterval)),
      chooser_(&ContentView::chooseWithDialog) {
    setMinimumSize(560, 460);
    setBackground(this, KestrelvaneColors::bg());
    setAcceptDrops(true);

    addAction_ = new QAction(QStringLiteral("Add…"), this);
    addAction_->setObjectName(QStringLiteral("addAction"));
    addAction_->setShortcut(QKeySequence::Open);
    addAction_->setShortcutContext(Qt::WindowShortcut);
    connect(addAction_, &QAction::triggered, this, &ContentView::openChooser);
    QWidget::addAction(addAction_);

    auto* column = new QVBoxLayout(this);
    column->setSpacing(0);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(makeToolbar());
    column->addWidget(divider(this));
    column->addWidget(makeQueueArea(), 1);
    column->addWidget(divider(this));
    column->addWidget(makeFooter());

    deleteAction_ = new QAction(QStringLiteral("Delete"), this);
    deleteAction_->setObjectName(QStringLiteral("deleteAction"));
    deleteAction_->setShortcut(QKeySequence::Delete);
    // Only while the list has focus, so Delete still edits the album field.
    deleteAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(deleteAction_, &QAction::triggered, this, &ContentView::removeSelection);
    list_->addAction(deleteAction_);

    connect(&vm_, &SenderViewModel::queueChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::statsLineChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::isSendingChanged, this, &ContentView::sendingChanged);
    connect(&vm_, &SenderViewModel::albumNameChanged, this, [this] {
        if (albumField_->text() != vm_.albumName()) {
            albumField_->setText(vm_.albumName());
        }
    });
    connect(discovery_.get(), &UsbmuxdDiscovery::stateChanged, this, &ContentView::refresh);
    connect(list_->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &ContentView::refresh);
    refresh();
}

ContentView::~ContentView() {
    discovery_->stop();
    browser_.stop();
}

QWidget* ContentView::makeToolbar() {
    auto* bar = new QWidget(this);
    bar->setObjectName(QStringLiteral("toolbar"));
    setBackground(bar, Qt::white);
    auto* row = barLayout(bar, 8);

    auto* title = new QLabel(QStringLiteral("Kestrelvane"), bar);
    title->setObjectName(QStringLiteral("title"));
    QFont titleFont = scaled(font(), 1.1);
    titleFont.setFamilies(
        {QStringLiteral("Georgia"), QStringLiteral("DejaVu Serif"), QStringLiteral("serif")});
    titleFont.setStyleHint(QFont::Serif);
    titleFont.setWeight(QFont::DemiBold);
    title->setFont(titleFont);
    setTextColour(title, KestrelvaneColors::ink());
    row->addWidget(title);

    row->addWidget(makeDirectionControl());

    auto* add = new QPushButton(QStringLiteral("Add…"), bar);
    add->setObjectName(QStringLiteral("addButton"));
    add->setToolTip(QStringLiteral("Add photos, videos or folders (%1)").arg(shortcutText()));
    tintAccent(add);
    connect(add, &QPushButton::clicked, this, &ContentView::openChooser);
    row->addWidget(add);

    clearButton_ = new QPushButton(QStringLiteral("Clear"), bar);
    clearButton_->setObjectName(QStringLiteral("clearButton"));
    styleButton(clearButton_, KestrelvaneColors::ink());
    connect(clearButton_, &QPushButton::clicked, this, &ContentView::clearQueue);
    row->addWidget(clearButton_);

    // The status takes the free space itself, right-aligned, and never less
    // than its longest text: the row is squeezed at the window's minimum width.
    deviceStatus_ = new QLabel(bar);
    deviceStatus_->setObjectName(QStringLiteral("deviceStatus"));
    deviceStatus_->setFont(calloutFont(font()));
    deviceStatus_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    setTextColour(deviceStatus_, KestrelvaneColors::muted());
    int longest = 0;
    for (const Kind kind : {Kind::ready, Kind::noDevice, Kind::appNotListening}) {
        longest =
            std::max(longest, deviceStatus_->fontMetrics().horizontalAdvance(deviceText(kind)));
    }
    deviceStatus_->setMinimumWidth(longest);
    row->addWidget(deviceStatus_, 1);
    return bar;
}

QWidget* ContentView::makeDirectionControl() {
    auto* control = new QFrame(this);
    control->setObjectName(QStringLiteral("directionControl"));
    control->setStyleSheet(QStringLiteral("QFrame#directionControl { background: %1; "
                                          "border-radius: 8px; }")
                               .arg(rgba(KestrelvaneColors::ink(), 0.06)));
    auto* row = new QHBoxLayout(control);
    row->setSpacing(2);
    row->setContentsMargins(3, 3, 3, 3);

    const QString segment = QStringLiteral("QPushButton { padding: 4px 6px; border: none; "
                                           "border-radius: 6px; color: %1; background: %2; }");
    auto* forward = new QPushButton(QStringLiteral("→ iPhone"), control);
    forward->setObjectName(QStringLiteral("forwardSegment"));
    forward->setFont(captionFont(font()));
    forward->setCheckable(true);
    forward->setChecked(true);
    // The only direction there is: drawn selected, and clicking it changes nothing.
    connect(forward, &QPushButton::toggled, forward, [forward] { forward->setChecked(true); });
    forward->setStyleSheet(
        segment.arg(rgba(KestrelvaneColors::ink()), rgba(KestrelvaneColors::bg())));
    row->addWidget(forward);

    auto* reverse = new QPushButton(QStringLiteral("← iPhone"), control);
    reverse->setObjectName(QStringLiteral("reverseSegment"));
    reverse->setFont(captionFont(font()));
    reverse->setStyleSheet(segment.arg(rgba(KestrelvaneColors::muted()), "transparent"));
    connect(reverse, &QPushButton::clicked, this, &ContentView::showReverseNote);
    row->addWidget(reverse);

    reverseNote_ = new QFrame(this, Qt::Popup);
    reverseNote_->setObjectName(QStringLiteral("reverseNote"));
    setBackground(reverseNote_, Qt::white);
    auto* noteLayout = new QVBoxLayout(reverseNote_);
    noteLayout->setContentsMargins(10, 10, 10, 10);
    auto* note = new QLabel(QStringLiteral("iPhone → Mac coming soon"), reverseNote_);
    note->setObjectName(QStringLiteral("reverseNoteText"));
    note->setFont(calloutFont(font()));
    setTextColour(note, KestrelvaneColors::ink());
    noteLayout->addWidget(note);
    return control;
}

QWidget* ContentView::makeQueueArea() {
    queueArea_ = new QStackedWidget(this);
    queueArea_->setObjectName(QStringLiteral("queueArea"));

    auto* empty = new QWidget(queueArea_);
    empty->setObjectName(QStringLiteral("emptyState"));
    auto* stack = new QVBoxLayout(empty);
    stack->setSpacing(6);
    stack->addStretch(1);
    auto* heading = new QLabel(QStringLiteral("No photos selected"), empty);
    heading->setObjectName(QStringLiteral("emptyTitle"));
    setTextColour(heading, KestrelvaneColors::ink());
    stack->addWidget(heading, 0, Qt::AlignHCenter);
    auto* hint = new QLabel(
        QStringLiteral("Drag photos in · Choose a folder %1").arg(shortcutText()), empty);
    hint->setObjectName(QStringLiteral("emptyHint"));
    hint->setFont(calloutFont(font()));
    setTextColour(hint, KestrelvaneColors::muted());
    stack->addWidget(hint, 0, Qt::AlignHCenter);
    stack->addSpacing(4);
    auto* choose = new QPushButton(QStringLiteral("Choose…"), empty);
    choose->setObjectName(QStringLiteral("chooseButton"));
    tintAccent(choose);
    connect(choose, &QPushButton::clicked, this, &ContentView::openChooser);
    stack->addWidget(choose, 0, Qt::AlignHCenter);
    stack->addStretch(1);
    queueArea_->addWidget(empty);

    list_ = new QListView(queueArea_);
    list_->setObjectName(QStringLiteral("queueList"));
    list_->setModel(&vm_.queue());
    list_->setItemDelegate(new QueueRowDelegate(list_));
    list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    list_->setUniformItemSizes(true);
    list_->setFrameShape(QFrame::NoFrame);
    QPalette palette = list_->palette();
    palette.setColor(QPalette::Base, KestrelvaneColors::bg());
    list_->setPalette(palette);
    queueArea_->addWidget(list_);
    return queueArea_;
}

QWidget* ContentView::makeFooter() {
    auto* bar = new QWidget(this);
    bar->setObjectName(QStringLiteral("footer"));
    setBackground(bar, Qt::white);
    auto* row = barLayout(bar, 12);

    albumField_ = new QLineEdit(bar);
    albumField_->setObjectName(QStringLiteral("albumField"));
    albumField_->setPlaceholderText(QStringLiteral("＋ Album (optional)"));
    albumField_->setMaximumWidth(220);
    connect(albumField_, &QLineEdit::textChanged, &vm_, &SenderViewModel::setAlbumName);
    row->addWidget(albumField_, 1);

    row->addStretch(1);

    statsLabel_ = new QLabel(bar);
    statsLabel_->setObjectName(QStringLiteral("statsLine"));
    statsLabel_->setFont(captionFont(font())); // the UI fonts' digits are of one width
    setTextColour(statsLabel_, KestrelvaneColors::muted());
    row->addWidget(statsLabel_);

    primaryButton_ = new QPushButton(bar);
    primaryButton_->setObjectName(QStringLiteral("primaryButton"));
    primaryButton_->setDefault(true);
    primaryButton_->setStyleSheet(
        QStringLiteral("QPushButton { background: %1; color: white; border: none; "
                       "border-radius: 6px; padding: 5px 14px; }"
                       "QPushButton:disabled { background: %2; color: rgba(255, 255, 255, 0.8); }")
            .arg(rgba(KestrelvaneColors::accent()), rgba(KestrelvaneColors::accent(), 0.4)));
    connect(primaryButton_, &QPushButton::clicked, this, &ContentView::sendQueue);
    row->addWidget(primaryButton_);
    return bar;
}

QSet<QString> ContentView::selection() const {
    QSet<QString> ids;
    for (const QModelIndex& index : list_->selectionModel()->selectedRows()) {
        ids.insert(index.data(TransferQueue::IdRole).toString());
    }
    return ids;
}

bool ContentView::isReverseNoteShown() const {
    return reverseNote_->isVisible();
}

void ContentView::setChooser(Chooser chooser) {
    chooser_ = std::move(chooser);
}

std::optional<std::vector<fs::path>> ContentView::chooseWithDialog(QWidget* parent) {
    MediaFileDialog dialog(parent);
    if (dialog.exec() != QDialog::Accepted) {
        return std::nullopt;
    }
    if (!dialog.chosen.empty()) {
        return dialog.chosen;
    }
    std::vector<fs::path> files;
    for (const QString& file : dialog.selectedFiles()) {
        files.emplace_back(file.toStdString());
    }
    return files;
}

QString ContentView::sendLabel(int unsent, int saved) {
    if (unsent == 0) {
        return QStringLiteral("Sent ✓");
    }
    return (saved == 0 ? QStringLiteral("Send %1 →") : QStringLiteral("Resume %1 →")).arg(unsent);
}

QString ContentView::deviceText(Kind kind) {
    switch (kind) {
    case Kind::ready:
        return QStringLiteral("● iPhone ready");
    case Kind::noDevice:
        return QStringLiteral("Plug in your iPhone");
    case Kind::appNotListening:
        return QStringLiteral("Open Kestrelvane on your iPhone");
    }
    return {};
}

void ContentView::openChooser() {
    if (auto chosen = chooser_(this); chosen && !chosen->empty()) {
        vm_.addURLs(*chosen);
    }
}

void ContentView::clearQueue() {
    vm_.clearQueue();
    list_->clearSelection();
}

void ContentView::removeSelection() {
    const QSet<QString> ids = selection();
    list_->clearSelection();
    if (!ids.isEmpty()) {
        vm_.queue().remove(std::set<QString>(ids.begin(), ids.end()));
    }
}

void ContentView::sendQueue() {
    const std::optional<int> fd = discovery_->takeReadyTunnel();
    if (!fd) {
        return;
    }
    discovery_->setPaused(true);
    QPointer<UsbmuxdDiscovery> discovery = discovery_.get();
    // A broken-off send gives up the phone connection, so the next pass opens a fresh one.
    vm_.send(*fd, [discovery] {
        if (discovery && discovery->state().kind == Kind::ready) {
            discovery->dropTunnel();
        }
    });
    if (!vm_.isSending()) {
        discovery_->setPaused(false); // nothing was sent
    }
}

void ContentView::showReverseNote() {
    auto* reverse = findChild<QPushButton*>(QStringLiteral("reverseSegment"));
    reverseNote_->adjustSize();
    reverseNote_->move(reverse->mapToGlobal(QPoint(0, reverse->height() + 4)));
    reverseNote_->show();
}

void ContentView::sendingChanged() {
    if (!vm_.isSending()) {
        discovery_->setPaused(false);
    }
    refresh();
}

void ContentView::refresh() {
    const TransferQueue& queue = vm_.queue();
    const bool sending = vm_.isSending();
    const bool hasItems = !queue.items().empty();
    const int unsent = queue.unsentCount();

    deviceStatus_->setText(deviceText(discovery_->state().kind));
    clearButton_->setEnabled(!sending && hasItems);
    queueArea_->setCurrentWidget(hasItems ? static_cast<QWidget*>(list_) : queueArea_->widget(0));
    albumField_->setEnabled(!sending);
    statsLabel_->setText(vm_.statsLine());
    statsLabel_->setVisible(!vm_.statsLine().isEmpty());
    primaryButton_->setText(sendLabel(unsent, queue.savedCount()));
    primaryButton_->setEnabled(!sending && unsent > 0 && discovery_->state().kind == Kind::ready);
    deleteAction_->setEnabled(list_->selectionModel()->hasSelection());
}

void ContentView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!event->spontaneous()) {
        if (!discovery_->isRunning()) {
            discovery_->start();
        }
        browser_.start();
    }
}

void ContentView::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    if (!event->spontaneous()) { // a minimised window is still there
        discovery_->stop();
        browser_.stop();
    }
}

namespace {

std::vector<fs::path> localFiles(const QMimeData* data) {
    std::vector<fs::path> files;
    if (data == nullptr) {
        return files;
    }
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile()) {
            files.emplace_back(url.toLocalFile().toStdString());
        }
    }
    return files;
}

} // namespace

void ContentView::dragEnterEvent(QDragEnterEvent* event) {
    if (!localFiles(event->mimeData()).empty()) {
        event->acceptProposedAction();
    }
}

void ContentView::dragMoveEvent(QDragMoveEvent* event) {
    if (!localFiles(event->mimeData()).empty()) {
        event->acceptProposedAction();
    }
}

void ContentView::dropEvent(QDropEvent* event) {
    // One drop is planned as one addition, so its files keep the planner's order.
    const std::vector<fs::path> files = localFiles(event->mimeData());
    if (!files.empty()) {
        vm_.addURLs(files);
    }
    event->acceptProposedAction();
}

} // namespace kestrelvane
