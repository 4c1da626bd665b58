#pragma once

#include "KestrelvaneKit/session/Destination.h"
#include "KestrelvaneKit/session/Pairing.h"
#include "Sender/BackgroundWork.h"

#include <QDialog>

#include <future>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

class QLabel;
class QLineEdit;
class QPushButton;

namespace kestrelvane {

/// Pairs this computer with a receiver on the network, from the window. It
/// connects on a thread of its own, shows the code this computer drew, and
/// asks for the code the receiver's screen shows; each person types the
/// other's. Closing it at any point ends the connection and the thread.
class PairingDialog : public QDialog {
    Q_OBJECT
public:
    PairingDialog(Destination destination, const QString& receiverName, QWidget* parent = nullptr);
    ~PairingDialog() override;

    /// Whether the receiver is paired now (once the dialog says so).
    bool paired() const noexcept { return paired_; }

private:
    /// On the pairing's thread: shows `offer` and waits for what the person types.
    std::string ask(const PairingOffer& offer);
    void showOffer(const PairingOffer& offer);
    void confirm();
    void finish(const QString& message, bool paired);
    /// Gives the pairing's thread its answer (empty: none), at most once.
    void answer(const std::string& code);

    const QString receiverName_;
    QLabel* message_ = nullptr;
    QLabel* code_ = nullptr;
    QLineEdit* typed_ = nullptr;
    QPushButton* confirm_ = nullptr;
    QPushButton* close_ = nullptr;
    bool paired_ = false;

    std::mutex mutex_; // guards answer_
    std::optional<std::promise<std::string>> answer_;
    std::stop_source stop_;
    std::thread worker_;
    BackgroundWork delivery_{0}; // the pairing's news, brought to the GUI thread
};

} // namespace kestrelvane
