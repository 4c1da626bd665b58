#pragma once

#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/UsbPhones.h"
#include "Sender/DesktopNotifier.h"
#include "Sender/DeviceBrowser.h"
#include "Sender/RememberedChoices.h"
#include "Sender/SenderViewModel.h"
#include "Sender/UsbmuxdDiscovery.h"

#include <QWidget>

#include <chrono>
#include <optional>
#include <vector>

class QAction;
class QComboBox;
class QFrame;
class QLabel;
class QLineEdit;
class QListView;
class QPushButton;
class QStackedWidget;
class QStringListModel;

namespace kestrelvane {

/// The application's one window content: a toolbar with the device status,
/// the queue (or a prompt when it is empty), and a footer with the album name
/// and the Send button. Owns the view model, the USB discovery and the
/// network browser for as long as it lives.
class ContentView : public QWidget {
    Q_OBJECT
public:
    /// Discovery talks to the daemon named by USBMUXD_SOCKET_ADDRESS, else the default.
    explicit ContentView(QWidget* parent = nullptr);
    ContentView(UsbPhones::Address usbmuxd, std::chrono::milliseconds discoveryInterval,
                QWidget* parent = nullptr);
    ~ContentView() override;

    SenderViewModel& viewModel() noexcept { return vm_; }
    UsbmuxdDiscovery& discovery() noexcept { return *discovery_; }
    DeviceBrowser& browser() noexcept { return browser_; }

    /// A send that ran at least this long and ends while the window is not
    /// active is told to the desktop.
    std::chrono::milliseconds notifyAfter{5000};

    /// Removes the selected items; the Delete key and the Edit menu's Delete.
    QAction* deleteAction() const noexcept { return deleteAction_; }
    /// Forgets the remembered destination and album names; the Edit menu's.
    QAction* forgetAction() const noexcept { return forgetAction_; }

    static QString deviceText(UsbmuxdDiscovery::State::Kind kind);

    /// A place the window can send to: the iPhone on USB, or a receiver the
    /// browser found on the network, reached as it was paired (by the name
    /// it announces or at one of its addresses).
    struct Choice {
        QString label;
        std::optional<Destination> network; ///< none: the iPhone on USB
        QString peerName;                   ///< what a broken send names
        bool paired = false;
        QString name{}; ///< the name it announces
        /// False for the chosen receiver while the network no longer
        /// announces it: it stays chosen, and is sent to once it is back.
        bool found = true;
    };
    /// The destinations shown, the iPhone first; the chosen one.
    const std::vector<Choice>& choices() const noexcept { return choices_; }
    const Choice& chosen() const;

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    QWidget* makeToolbar();
    QWidget* makeDirectionControl();
    QWidget* makeQueueArea();
    QWidget* makeFooter();

    void openChooser();
    void clearQueue();
    void removeSelection();
    void sendQueue();
    void showReverseNote();
    void refresh();
    void sendingChanged();
    /// Lists the iPhone and every receiver the browser reports, keeping the
    /// choice when it is still there.
    void updateChoices();
    /// A receiver on the network as the choice lists it.
    static Choice networkChoice(const Destination& destination, const QString& name, bool paired);
    /// Chooses the destination remembered from the last run, listed as not
    /// found until the network browser reports it.
    void restoreChoice();
    void remember();
    void tellDesktop(int saved, int notSaved, double seconds);

    SenderViewModel vm_;
    std::unique_ptr<UsbmuxdDiscovery> discovery_;
    DeviceBrowser browser_;
    DesktopNotifier notifier_;

    QAction* deleteAction_ = nullptr;
    QAction* forgetAction_ = nullptr;
    RememberedChoices remembered_;
    QStringListModel* recentAlbums_ = nullptr;
    QLabel* deviceStatus_ = nullptr;
    QPushButton* clearButton_ = nullptr;
    QComboBox* destinationChoice_ = nullptr;
    std::vector<Choice> choices_;
    QPushButton* reverse_ = nullptr;
    QFrame* reverseNote_ = nullptr;
    QStackedWidget* queueArea_ = nullptr;
    QListView* list_ = nullptr;
    QLineEdit* albumField_ = nullptr;
    QLabel* progressLabel_ = nullptr;
    QLabel* statsLabel_ = nullptr;
    QLabel* breakLabel_ = nullptr;
    QPushButton* primaryButton_ = nullptr;
};

} // namespace kestrelvane
