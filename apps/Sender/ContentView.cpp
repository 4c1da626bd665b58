#include "Sender/ContentView.h"

#include "KestrelvaneKit/intake/MediaScanner.h"
#include "KestrelvaneKit/network/PairedDevices.h"
#include "KestrelvaneKit/wire/UnicodeText.h"
#include "Sender/KestrelvaneColors.h"
#include "Sender/PairingDialog.h"
#include "Sender/QueueRowDelegate.h"

#include <QAction>
#include <QComboBox>
#include <QCompleter>
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
#include <QStringListModel>
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

QLabel* makeLabel(const QString& text, const QString& name, const QFont& font, const QColor& colour,
                  QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setObjectName(name);
    label->setFont(font);
    setTextColour(label, colour);
    return label;
}

QPushButton* makeButton(const QString& text, const QString& name, QWidget* parent) {
    auto* button = new QPushButton(text, parent);
    button->setObjectName(name);
    return button;
}

/// A compact bordered button; `tint` colours its text.
QPushButton* makeBorderedButton(const QString& text, const QString& name, const QColor& tint,
                                QWidget* parent) {
    QPushButton* button = makeButton(text, name, parent);
    button->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; background: white; padding: 3px 8px; "
                       "border: 1px solid %3; border-radius: 5px; }"
                       "QPushButton:pressed { background: %4; }"
                       "QPushButton:disabled { color: %2; }")
            .arg(rgba(tint), rgba(tint, 0.4), rgba(KestrelvaneColors::ink(), 0.2),
                 rgba(KestrelvaneColors::ink(), 0.08)));
    return button;
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

/// The dialog's choice of folders, images and movies, several at a time; none when cancelled.
std::vector<fs::path> chooseWithDialog(QWidget* parent) {
    MediaFileDialog dialog(parent);
    if (dialog.exec() != QDialog::Accepted) {
        return {};
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

/// "Send 3 →", "Resume 2 →" or "Sent ✓".
QString sendLabel(int unsent, int saved) {
    if (unsent == 0) {
        return QStringLiteral("Sent ✓");
    }
    return (saved == 0 ? QStringLiteral("Send %1 →") : QStringLiteral("Resume %1 →")).arg(unsent);
}

} // namespace

ContentView::ContentView(QWidget* parent)
    : ContentView(UsbPhones::Address::fromEnvironment(), UsbmuxdDiscovery::defaultInterval,
                  parent) {
}

ContentView::ContentView(UsbPhones::Address usbmuxd, std::chrono::milliseconds discoveryInterval,
                         QWidget* parent)
    : QWidget(parent),
      discovery_(std::make_unique<UsbmuxdDiscovery>(std::move(usbmuxd), discoveryInterval)) {
    setMinimumSize(560, 460);
    setBackground(this, KestrelvaneColors::bg());
    setAcceptDrops(true);

    auto* add = new QAction(QStringLiteral("Add…"), this);
    add->setObjectName(QStringLiteral("addAction"));
    add->setShortcut(QKeySequence::Open);
    add->setShortcutContext(Qt::WindowShortcut);
    connect(add, &QAction::triggered, this, &ContentView::openChooser);
    addAction(add);

    auto* column = new QVBoxLayout(this);
    column->setSpacing(0);
    column->setContentsMargins(0, 0, 0, 0);
    QWidget* toolbar = makeToolbar();
    column->addWidget(toolbar);
    // Wide enough for the toolbar, the destination choice and the longest
    // device status included, each shown whole.
    setMinimumWidth(std::max(minimumWidth(), toolbar->sizeHint().width()));
    column->addWidget(divider(this));
    column->addWidget(makeQueueArea(), 1);
    // What happened to a send that broke off, until the next one.
    breakLabel_ = makeLabel({}, QStringLiteral("breakLine"), calloutFont(font()),
                            KestrelvaneColors::ink(), this);
    breakLabel_->setWordWrap(true);
    breakLabel_->setContentsMargins(12, 6, 12, 6);
    setBackground(breakLabel_, KestrelvaneColors::accent().lighter(185));
    breakLabel_->hide();
    column->addWidget(breakLabel_);
    column->addWidget(divider(this));
    column->addWidget(makeFooter());

    deleteAction_ = new QAction(QStringLiteral("Delete"), this);
    deleteAction_->setObjectName(QStringLiteral("deleteAction"));
    deleteAction_->setShortcut(QKeySequence::Delete);
    // Only while the list has focus, so Delete still edits the album field.
    deleteAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(deleteAction_, &QAction::triggered, this, &ContentView::removeSelection);
    list_->addAction(deleteAction_);

    forgetAction_ = new QAction(QStringLiteral("Forget Recent Albums and Destination"), this);
    forgetAction_->setObjectName(QStringLiteral("forgetAction"));
    connect(forgetAction_, &QAction::triggered, this, [this] {
        remembered_.forget();
        recentAlbums_->setStringList({});
    });

    // Tab goes through the controls as they are laid out: toolbar, queue, footer.
    QWidget* order[] = {findChild<QWidget*>(QStringLiteral("forwardSegment")),
                        reverse_,
                        findChild<QWidget*>(QStringLiteral("addButton")),
                        clearButton_,
                        destinationChoice_,
                        findChild<QWidget*>(QStringLiteral("chooseButton")), // with the queue empty
                        list_,
                        albumField_,
                        primaryButton_};
    for (std::size_t i = 1; i < std::size(order); ++i) {
        setTabOrder(order[i - 1], order[i]);
    }

    connect(&vm_, &SenderViewModel::queueChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::statsLineChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::progressLineChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::breakLineChanged, this, &ContentView::refresh);
    connect(&vm_, &SenderViewModel::isSendingChanged, this, &ContentView::sendingChanged);
    connect(&vm_, &SenderViewModel::albumNameChanged, this, [this] {
        if (albumField_->text() != vm_.albumName()) {
            albumField_->setText(vm_.albumName());
        }
    });
    connect(discovery_.get(), &UsbmuxdDiscovery::stateChanged, this, &ContentView::refresh);
    connect(&browser_, &DeviceBrowser::devicesChanged, this, &ContentView::updateChoices);
    connect(&vm_, &SenderViewModel::sendEnded, this, &ContentView::tellDesktop);
    updateChoices();
    restoreChoice();
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

    QFont titleFont = scaled(font(), 1.1);
    titleFont.setFamilies(
        {QStringLiteral("Georgia"), QStringLiteral("DejaVu Serif"), QStringLiteral("serif")});
    titleFont.setStyleHint(QFont::Serif);
    titleFont.setWeight(QFont::DemiBold);
    row->addWidget(makeLabel(QStringLiteral("Kestrelvane"), QStringLiteral("title"), titleFont,
                             KestrelvaneColors::ink(), bar));

    row->addWidget(makeDirectionControl());

    auto* add = makeBorderedButton(QStringLiteral("Add…"), QStringLiteral("addButton"),
                                   KestrelvaneColors::accent(), bar);
    add->setToolTip(QStringLiteral("Add photos, videos or folders (%1)").arg(shortcutText()));
    add->setAccessibleName(QStringLiteral("Add photos, videos or folders"));
    connect(add, &QPushButton::clicked, this, &ContentView::openChooser);
    row->addWidget(add);

    clearButton_ = makeBorderedButton(QStringLiteral("Clear"), QStringLiteral("clearButton"),
                                      KestrelvaneColors::ink(), bar);
    clearButton_->setAccessibleName(QStringLiteral("Clear the queue"));
    connect(clearButton_, &QPushButton::clicked, this, &ContentView::clearQueue);
    row->addWidget(clearButton_);

    destinationChoice_ = new QComboBox(bar);
    destinationChoice_->setObjectName(QStringLiteral("destinationChoice"));
    // Screen readers name a combo box by its current entry; this says what it is.
    destinationChoice_->setAccessibleDescription(QStringLiteral("Where Send sends the queue"));
    // Narrow, so that the toolbar still fits the minimum width; the list it
    // opens is as wide as its longest entry.
    destinationChoice_->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    destinationChoice_->setMinimumContentsLength(7);
    connect(destinationChoice_, &QComboBox::currentIndexChanged, this, &ContentView::refresh);
    row->addWidget(destinationChoice_);

    // The status takes the free space itself, right-aligned, and never less
    // than its longest text: the row is squeezed at the window's minimum width.
    deviceStatus_ = makeLabel({}, QStringLiteral("deviceStatus"), calloutFont(font()),
                              KestrelvaneColors::muted(), bar);
    deviceStatus_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    deviceStatus_->setAccessibleName(QStringLiteral("Destination status"));
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

    const auto segment = [this, control](const QString& text, const QString& name,
                                         const QColor& colour, const QString& background) {
        QPushButton* button = makeButton(text, name, control);
        button->setFont(captionFont(font()));
        button->setStyleSheet(QStringLiteral("QPushButton { padding: 4px 6px; border: none; "
                                             "border-radius: 6px; color: %1; background: %2; }")
                                  .arg(rgba(colour), background));
        return button;
    };
    QPushButton* forward = segment(QStringLiteral("→ iPhone"), QStringLiteral("forwardSegment"),
                                   KestrelvaneColors::ink(), rgba(KestrelvaneColors::bg()));
    forward->setAccessibleName(QStringLiteral("Send to the iPhone"));
    forward->setCheckable(true);
    forward->setChecked(true);
    // The only direction there is: drawn selected, and clicking it changes nothing.
    connect(forward, &QPushButton::toggled, forward, [forward] { forward->setChecked(true); });
    row->addWidget(forward);

    reverse_ = segment(QStringLiteral("← iPhone"), QStringLiteral("reverseSegment"),
                       KestrelvaneColors::muted(), QStringLiteral("transparent"));
    reverse_->setAccessibleName(QStringLiteral("Receive from the iPhone (coming soon)"));
    connect(reverse_, &QPushButton::clicked, this, &ContentView::showReverseNote);
    row->addWidget(reverse_);

    reverseNote_ = new QFrame(this, Qt::Popup);
    reverseNote_->setObjectName(QStringLiteral("reverseNote"));
    setBackground(reverseNote_, Qt::white);
    auto* noteLayout = new QVBoxLayout(reverseNote_);
    noteLayout->setContentsMargins(10, 10, 10, 10);
    noteLayout->addWidget(makeLabel(QStringLiteral("iPhone → Mac coming soon"),
                                    QStringLiteral("reverseNoteText"), calloutFont(font()),
                                    KestrelvaneColors::ink(), reverseNote_));
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
    stack->addWidget(makeLabel(QStringLiteral("No photos selected"), QStringLiteral("emptyTitle"),
                               font(), KestrelvaneColors::ink(), empty),
                     0, Qt::AlignHCenter);
    stack->addWidget(
        makeLabel(QStringLiteral("Drag photos in · Choose a folder %1").arg(shortcutText()),
                  QStringLiteral("emptyHint"), calloutFont(font()), KestrelvaneColors::muted(),
                  empty),
        0, Qt::AlignHCenter);
    stack->addSpacing(4);
    auto* choose = makeBorderedButton(QStringLiteral("Choose…"), QStringLiteral("chooseButton"),
                                      KestrelvaneColors::accent(), empty);
    connect(choose, &QPushButton::clicked, this, &ContentView::openChooser);
    stack->addWidget(choose, 0, Qt::AlignHCenter);
    stack->addStretch(1);
    queueArea_->addWidget(empty);

    list_ = new QListView(queueArea_);
    list_->setObjectName(QStringLiteral("queueList"));
    list_->setAccessibleName(QStringLiteral("Queue"));
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
    albumField_->setAccessibleName(QStringLiteral("Album"));
    albumField_->setMaximumWidth(220);
    connect(albumField_, &QLineEdit::textChanged, &vm_, &SenderViewModel::setAlbumName);
    // The album names sent with lately, offered as the name is typed.
    recentAlbums_ = new QStringListModel(remembered_.recentAlbums(), this);
    auto* completer = new QCompleter(recentAlbums_, albumField_);
    completer->setCaseSensitivity(Qt::CaseInsensitive);
    completer->setFilterMode(Qt::MatchContains);
    albumField_->setCompleter(completer);
    row->addWidget(albumField_, 1);

    row->addStretch(1);

    // The UI fonts' digits are of one width.
    progressLabel_ = makeLabel({}, QStringLiteral("progressLine"), captionFont(font()),
                               KestrelvaneColors::muted(), bar);
    row->addWidget(progressLabel_);
    statsLabel_ = makeLabel({}, QStringLiteral("statsLine"), captionFont(font()),
                            KestrelvaneColors::muted(), bar);
    row->addWidget(statsLabel_);

    primaryButton_ = makeButton({}, QStringLiteral("primaryButton"), bar);
    primaryButton_->setDefault(true);
    // Send from anywhere in the window; Add has its own shortcut, Clear its
    // place in the tab order.
    primaryButton_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return));
    primaryButton_->setToolTip(
        QStringLiteral("Send (%1)")
            .arg(primaryButton_->shortcut().toString(QKeySequence::NativeText)));
    primaryButton_->setStyleSheet(
        QStringLiteral("QPushButton { background: %1; color: white; border: none; "
                       "border-radius: 6px; padding: 5px 14px; }"
                       "QPushButton:disabled { background: %2; color: rgba(255, 255, 255, 0.8); }")
            .arg(rgba(KestrelvaneColors::accent()), rgba(KestrelvaneColors::accent(), 0.4)));
    connect(primaryButton_, &QPushButton::clicked, this, &ContentView::sendQueue);
    row->addWidget(primaryButton_);
    return bar;
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

namespace {

/// Whether this device keeps a pairing `destination` may mean (as
/// PairedDevices::named finds them, in a list read once).
bool isPairedWith(const std::vector<PairedDevice>& paired, const Destination& destination) {
    const std::string text = destination.text();
    return std::any_of(paired.begin(), paired.end(),
                       [&](const PairedDevice& device) { return device.answersTo(text); });
}

/// The iPhone on USB, the first choice and the default.
ContentView::Choice iPhoneChoice() {
    return {QStringLiteral("iPhone (USB)"), std::nullopt, QStringLiteral("The iPhone"), false};
}

/// This device's paired list, read once; empty when it cannot be read (a
/// corrupt or unsafe key folder shows every receiver as not paired, and the
/// send says why).
std::vector<PairedDevice> pairedDevices() {
    try {
        return PairedDevices(Trust::ofThisDevice().folder).list();
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace

void ContentView::updateChoices() {
    // A receiver is the same one by the name it announces, whichever way it
    // is reached (its key is an address when it was paired at one).
    const auto same = [](const Choice& a, const Choice& b) {
        return a.network && b.network && a.name == b.name;
    };
    std::optional<Choice> previous;
    if (destinationChoice_->currentIndex() > 0) {
        previous = chosen();
    }
    choices_.assign(1, iPhoneChoice());
    const std::vector<PairedDevice> paired = pairedDevices();
    for (const DiscoveredService& service : browser_.devices()) {
        // Reached as it was paired: by its name, or at the address it was paired at.
        Destination destination = Destination::announced(service.name);
        bool isPaired = isPairedWith(paired, destination);
        for (const std::string& address : service.addresses) {
            const Destination at = Destination::address(address, service.port);
            if (!isPaired && isPairedWith(paired, at)) {
                destination = at;
                isPaired = true;
            }
        }
        choices_.push_back(networkChoice(
            destination, QString::fromStdString(UnicodeText::printable(service.name)), isPaired));
    }
    if (previous && std::none_of(choices_.begin(), choices_.end(),
                                 [&](const Choice& choice) { return same(choice, *previous); })) {
        previous->found = false;
        previous->label = QStringLiteral("%1 · not found").arg(previous->name);
        choices_.push_back(*previous);
    }
    const QSignalBlocker blocker(destinationChoice_);
    destinationChoice_->clear();
    int keep = 0;
    for (const Choice& choice : choices_) {
        if (previous && same(choice, *previous)) {
            keep = destinationChoice_->count();
        }
        destinationChoice_->addItem(choice.label,
                                    choice.network ? QString::fromStdString(choice.network->text())
                                                   : QString());
    }
    destinationChoice_->setCurrentIndex(keep);
    refresh();
}

ContentView::Choice ContentView::networkChoice(const Destination& destination, const QString& name,
                                               bool paired) {
    return {QStringLiteral("%1 · %2").arg(name, paired ? QStringLiteral("paired")
                                                       : QStringLiteral("not paired")),
            destination, QStringLiteral("“%1”").arg(name), paired, name};
}

void ContentView::restoreChoice() {
    const auto last = remembered_.lastDestination();
    if (!last || last->key.isEmpty()) {
        return; // the iPhone, chosen anyway
    }
    Choice restored;
    try {
        const Destination destination = Destination::parse(last->key.toStdString());
        if (destination.kind == Destination::Kind::usb) {
            return;
        }
        restored =
            networkChoice(destination, last->name, isPairedWith(pairedDevices(), destination));
    } catch (const std::invalid_argument&) {
        return; // nothing this version can reach
    }
    restored.found = false;
    restored.label = QStringLiteral("%1 · not found").arg(restored.name);
    choices_.push_back(restored);
    const QSignalBlocker blocker(destinationChoice_);
    destinationChoice_->addItem(restored.label, last->key);
    destinationChoice_->setCurrentIndex(destinationChoice_->count() - 1);
    refresh();
}

void ContentView::remember() {
    const Choice& choice = chosen();
    remembered_.rememberDestination(
        {choice.network ? QString::fromStdString(choice.network->text()) : QString(), choice.name});
    remembered_.rememberAlbum(albumField_->text());
    recentAlbums_->setStringList(remembered_.recentAlbums());
}

void ContentView::tellDesktop(int saved, int notSaved, double seconds) {
    // Someone looking at the window sees it already; a short send needs no word.
    if (seconds * 1000.0 < static_cast<double>(notifyAfter.count()) || isActiveWindow()) {
        return;
    }
    const QString summary = notSaved == 0
                                ? QStringLiteral("All %1 saved").arg(saved)
                                : QStringLiteral("%1 of %2 saved").arg(saved).arg(saved + notSaved);
    notifier_.notify(summary,
                     notSaved == 0 || vm_.breakLine().isEmpty()
                         ? QStringLiteral("%1 saved, %2 not saved.").arg(saved).arg(notSaved)
                         : vm_.breakLine());
}

const ContentView::Choice& ContentView::chosen() const {
    static const Choice iPhone = iPhoneChoice();
    if (choices_.empty()) {
        return iPhone;
    }
    const int index = destinationChoice_->currentIndex();
    return choices_.at(index > 0 && static_cast<std::size_t>(index) < choices_.size()
                           ? static_cast<std::size_t>(index)
                           : 0);
}

void ContentView::openChooser() {
    if (const std::vector<fs::path> chosen = chooseWithDialog(this); !chosen.empty()) {
        vm_.queue().add(chosen);
    }
}

void ContentView::clearQueue() {
    vm_.clearQueue();
    list_->clearSelection();
}

void ContentView::removeSelection() {
    std::set<QString> ids;
    for (const QModelIndex& index : list_->selectionModel()->selectedRows()) {
        ids.insert(index.data(TransferQueue::IdRole).toString());
    }
    list_->clearSelection();
    vm_.queue().remove(ids);
}

void ContentView::sendQueue() {
    const Choice& choice = chosen();
    vm_.setPeerName(choice.peerName);
    if (choice.network) {
        if (choice.paired) {
            remember();
            vm_.sendTo(*choice.network, Trust::ofThisDevice());
            return;
        }
        // Not paired yet: Send offers to pair first.
        auto* dialog = new PairingDialog(*choice.network, choice.peerName, this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        // Closed at any point: the pairing may have been kept just before.
        connect(dialog, &QDialog::finished, this, &ContentView::updateChoices);
        dialog->open();
        return;
    }
    const bool extended = discovery_->state().extended;
    const std::optional<int> fd = discovery_->takeReadyTunnel();
    if (!fd) {
        return;
    }
    discovery_->setPaused(true);
    remember();
    QPointer<UsbmuxdDiscovery> discovery = discovery_.get();
    // A broken-off send gives up the phone connection, so the next pass opens a fresh one.
    vm_.send(*fd, extended, [discovery] {
        if (discovery && discovery->state().kind == Kind::ready) {
            discovery->dropTunnel();
        }
    });
    if (!vm_.isSending()) {
        discovery_->setPaused(false); // nothing was sent
    }
}

void ContentView::showReverseNote() {
    reverseNote_->adjustSize();
    reverseNote_->move(reverse_->mapToGlobal(QPoint(0, reverse_->height() + 4)));
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

    const Choice& choice = chosen();
    deviceStatus_->setText(!choice.network ? deviceText(discovery_->state().kind)
                           : !choice.found ? QStringLiteral("Not on the network now")
                           : choice.paired ? QStringLiteral("● Paired, private")
                                           : QStringLiteral("Not paired yet"));
    const bool reachable =
        choice.network ? choice.paired && choice.found : discovery_->state().kind == Kind::ready;
    destinationChoice_->setEnabled(!sending);
    clearButton_->setEnabled(!sending && hasItems);
    queueArea_->setCurrentWidget(hasItems ? static_cast<QWidget*>(list_) : queueArea_->widget(0));
    albumField_->setEnabled(!sending);
    statsLabel_->setText(vm_.statsLine());
    statsLabel_->setVisible(!vm_.statsLine().isEmpty());
    progressLabel_->setText(vm_.progressLine());
    progressLabel_->setVisible(!vm_.progressLine().isEmpty());
    breakLabel_->setText(vm_.breakLine());
    breakLabel_->setVisible(!vm_.breakLine().isEmpty());
    const bool offerPairing = choice.network && !choice.paired && choice.found;
    primaryButton_->setText(offerPairing ? QStringLiteral("Pair…")
                                         : sendLabel(unsent, queue.savedCount()));
    primaryButton_->setEnabled(!sending && (offerPairing || (unsent > 0 && reachable)));
    primaryButton_->setAccessibleName(QString(primaryButton_->text()).remove(QStringLiteral(" →")));
    deleteAction_->setEnabled(list_->selectionModel()->hasSelection());
}

void ContentView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!event->spontaneous()) {
        discovery_->start();
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

void ContentView::dragEnterEvent(QDragEnterEvent* event) {
    dragMoveEvent(event);
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
        vm_.queue().add(files);
    }
    event->acceptProposedAction();
}

} // namespace kestrelvane
