#include "Sender/PairingDialog.h"

#include "KestrelvaneKit/session/ConnectError.h"
#include "KestrelvaneKit/session/ReceiverPairing.h"
#include "KestrelvaneKit/wire/UnicodeText.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace kestrelvane {

namespace {

QString outcomeText(Pairing::Outcome outcome, const QString& name) {
    switch (outcome) {
    case Pairing::Outcome::paired:
        return QStringLiteral("Paired with %1. Sends to it are private from now on.").arg(name);
    case Pairing::Outcome::codesDiffer:
        return QStringLiteral("The codes differ: not paired. Someone may be in between; try "
                              "again on a network you trust.");
    case Pairing::Outcome::peerDeclined:
        return QStringLiteral("%1 did not confirm the code: not paired.").arg(name);
    case Pairing::Outcome::commitmentBroken:
        return QStringLiteral("%1's commitment does not match: someone may be in between. Not "
                              "paired.")
            .arg(name);
    case Pairing::Outcome::brokenAfterReveal:
        return QStringLiteral("The connection ended in the middle of pairing: not paired. "
                              "Someone may be in between; do not retry blindly.");
    }
    return {};
}

} // namespace

PairingDialog::PairingDialog(Destination destination, const QString& receiverName, QWidget* parent)
    : QDialog(parent), receiverName_(receiverName) {
    setWindowTitle(QStringLiteral("Pair with %1").arg(receiverName));
    setMinimumWidth(440);
    auto* column = new QVBoxLayout(this);
    message_ = new QLabel(QStringLiteral("Connecting to %1…").arg(receiverName), this);
    message_->setObjectName(QStringLiteral("pairingMessage"));
    message_->setWordWrap(true);
    column->addWidget(message_);
    code_ = new QLabel(this);
    code_->setObjectName(QStringLiteral("pairingCode"));
    code_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont large = code_->font();
    large.setPointSizeF(large.pointSizeF() * 2);
    code_->setFont(large);
    code_->hide();
    column->addWidget(code_, 0, Qt::AlignHCenter);
    typed_ = new QLineEdit(this);
    typed_->setObjectName(QStringLiteral("pairingTyped"));
    typed_->setAccessibleName(QStringLiteral("The code the receiver shows"));
    typed_->setPlaceholderText(QStringLiteral("123 456"));
    typed_->hide();
    column->addWidget(typed_);

    auto* buttons = new QDialogButtonBox(this);
    confirm_ = buttons->addButton(QStringLiteral("Pair"), QDialogButtonBox::AcceptRole);
    confirm_->setObjectName(QStringLiteral("pairingConfirm"));
    confirm_->setEnabled(false);
    close_ = buttons->addButton(QDialogButtonBox::Cancel);
    close_->setObjectName(QStringLiteral("pairingClose"));
    column->addWidget(buttons);
    connect(confirm_, &QPushButton::clicked, this, &PairingDialog::confirm);
    connect(close_, &QPushButton::clicked, this, &QDialog::reject);
    connect(typed_, &QLineEdit::returnPressed, this, &PairingDialog::confirm);
    connect(typed_, &QLineEdit::textChanged, this, [this](const QString& text) {
        confirm_->setEnabled(QString(text).remove(QLatin1Char(' ')).size() == 6);
    });

    worker_ = std::thread([this, destination = std::move(destination)] {
        std::function<void()> news;
        try {
            const PairedReceiver result = pairWithReceiver(
                destination, Trust::ofThisDevice(),
                [this](const PairingOffer& offer) { return ask(offer); }, stop_.get_token());
            const bool paired = result.outcome == Pairing::Outcome::paired;
            QString message = outcomeText(result.outcome, receiverName_);
            if (!result.replaced.empty()) {
                message += QStringLiteral(" Its key differs from the one paired before.");
            }
            news = [this, message, paired] { finish(message, paired); };
        } catch (const std::exception& error) {
            QString why = QString::fromStdString(error.what());
            if (!why.isEmpty()) {
                why[0] = why[0].toUpper();
            }
            news = [this, why] { finish(why + QStringLiteral(". Not paired."), false); };
        }
        delivery_.deliver(std::move(news));
    });
}

PairingDialog::~PairingDialog() {
    // Whatever the pairing waits for, it waits no more.
    stop_.request_stop();
    answer({});
    worker_.join();
}

std::string PairingDialog::ask(const PairingOffer& offer) {
    std::future<std::string> typed;
    {
        const std::lock_guard lock(mutex_);
        answer_.emplace();
        typed = answer_->get_future();
    }
    if (stop_.stop_requested()) {
        answer({});
    }
    delivery_.deliver([this, offer] { showOffer(offer); });
    return typed.get();
}

void PairingDialog::showOffer(const PairingOffer& offer) {
    message_->setText(
        QStringLiteral("%1 (%2) is connected. This computer shows the code below: type it on %1. "
                       "Then type here the code %1 shows.")
            .arg(receiverName_, QString::fromStdString(offer.peer.shortHex())));
    code_->setText(QString::fromStdString(offer.code));
    code_->show();
    typed_->show();
    typed_->setFocus();
    adjustSize();
}

void PairingDialog::confirm() {
    if (!confirm_->isEnabled()) {
        return;
    }
    confirm_->setEnabled(false);
    typed_->setEnabled(false);
    message_->setText(QStringLiteral("Waiting for %1 to confirm…").arg(receiverName_));
    answer(typed_->text().toStdString());
}

void PairingDialog::answer(const std::string& code) {
    const std::lock_guard lock(mutex_);
    if (answer_) {
        answer_->set_value(code);
        answer_.reset();
    }
}

void PairingDialog::finish(const QString& message, bool paired) {
    paired_ = paired;
    message_->setText(message);
    code_->hide();
    typed_->hide();
    confirm_->hide();
    close_->setText(QStringLiteral("Close"));
    adjustSize();
}

} // namespace kestrelvane
