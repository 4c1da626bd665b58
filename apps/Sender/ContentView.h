#pragma once

#include "KestrelvaneKit/session/UsbPhones.h"
#include "Sender/DeviceBrowser.h"
#include "Sender/SenderViewModel.h"
#include "Sender/UsbmuxdDiscovery.h"

#include <QWidget>

#include <chrono>

class QAction;
class QFrame;
class QLabel;
class QLineEdit;
class QListView;
class QPushButton;
class QStackedWidget;

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

    /// Removes the selected items; the Delete key and the Edit menu's Delete.
    QAction* deleteAction() const noexcept { return deleteAction_; }

    static QString deviceText(UsbmuxdDiscovery::State::Kind kind);

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

    SenderViewModel vm_;
    std::unique_ptr<UsbmuxdDiscovery> discovery_;
    DeviceBrowser browser_;

    QAction* deleteAction_ = nullptr;
    QLabel* deviceStatus_ = nullptr;
    QPushButton* clearButton_ = nullptr;
    QPushButton* reverse_ = nullptr;
    QFrame* reverseNote_ = nullptr;
    QStackedWidget* queueArea_ = nullptr;
    QListView* list_ = nullptr;
    QLineEdit* albumField_ = nullptr;
    QLabel* statsLabel_ = nullptr;
    QPushButton* primaryButton_ = nullptr;
};

} // namespace kestrelvane
