#include "Sender/KestrelvaneSenderApp.h"

#include "Sender/ContentView.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>

#include <csignal>

namespace kestrelvane {

KestrelvaneSenderApp::KestrelvaneSenderApp(QUrl appcast, QObject* parent)
    : QObject(parent), updater_(std::move(appcast)) {
    updater_.start();
    // A write to a socket whose peer has gone must fail with an error for the
    // transport to handle, not end the process.
    std::signal(SIGPIPE, SIG_IGN);

    window_ = std::make_unique<QMainWindow>();
    window_->setWindowTitle(QStringLiteral("Kestrelvane"));
    window_->setWindowIcon(QIcon::fromTheme(QStringLiteral("kestrelvane")));
    content_ = new ContentView(window_.get());
    window_->setCentralWidget(content_);
    window_->resize(720, 540);
    buildMenus();
    connect(&updater_, &AppcastUpdater::checkFinished, this, &KestrelvaneSenderApp::presentResult);
}

KestrelvaneSenderApp::~KestrelvaneSenderApp() = default;

void KestrelvaneSenderApp::show() {
    window_->show();
}

void KestrelvaneSenderApp::buildMenus() {
    QMenu* app = window_->menuBar()->addMenu(QStringLiteral("Kestrelvane"));
    QAction* about = app->addAction(QStringLiteral("About Kestrelvane"));
    about->setMenuRole(QAction::AboutRole);
    connect(about, &QAction::triggered, window_.get(), [this] {
        QMessageBox::about(
            window_.get(), QStringLiteral("About Kestrelvane"),
            QStringLiteral("Kestrelvane %1\nCopies photos and videos to your iPhone.")
                .arg(AppcastUpdater::currentVersion()));
    });

    QAction* check = app->addAction(QStringLiteral("Check for Updates…"));
    check->setObjectName(QStringLiteral("checkForUpdatesAction"));
    check->setMenuRole(QAction::ApplicationSpecificRole);
    check->setEnabled(updater_.canCheckForUpdates());
    connect(&updater_, &AppcastUpdater::canCheckForUpdatesChanged, check,
            [this, check] { check->setEnabled(updater_.canCheckForUpdates()); });
    connect(check, &QAction::triggered, &updater_, &AppcastUpdater::checkForUpdates);

    app->addSeparator();
    QAction* quit = app->addAction(QStringLiteral("Quit Kestrelvane"));
    quit->setMenuRole(QAction::QuitRole);
    quit->setShortcut(QKeySequence::Quit);
    connect(quit, &QAction::triggered, qApp, &QApplication::quit, Qt::QueuedConnection);

    QMenu* edit = window_->menuBar()->addMenu(QStringLiteral("Edit"));
    edit->addAction(content_->deleteAction());
    edit->addSeparator();
    edit->addAction(content_->forgetAction());
}

void KestrelvaneSenderApp::presentResult(const AppcastUpdater::Result& result) {
    auto* box = new QMessageBox(window_.get());
    box->setObjectName(QStringLiteral("updateResult"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowTitle(QStringLiteral("Software Update"));
    const AppcastUpdater::Release& latest = result.latest;
    switch (result.kind) {
    case AppcastUpdater::Result::Kind::updateAvailable: {
        box->setIcon(QMessageBox::Information);
        box->setText(QStringLiteral("A new version of Kestrelvane is available!"));
        QString details = QStringLiteral("Kestrelvane %1 is now available—you have %2.")
                              .arg(latest.shortVersion, AppcastUpdater::currentVersion());
        if (latest.releaseNotesUrl.isValid()) {
            details += QStringLiteral(" <a href=\"%1\">Release notes</a>")
                           .arg(latest.releaseNotesUrl.toString().toHtmlEscaped());
        }
        box->setTextFormat(Qt::RichText);
        box->setInformativeText(details);
        box->setTextInteractionFlags(Qt::TextBrowserInteraction);
        if (latest.downloadUrl.isValid()) {
            QPushButton* download =
                box->addButton(QStringLiteral("Download"), QMessageBox::AcceptRole);
            const QUrl url = latest.downloadUrl;
            connect(download, &QPushButton::clicked, box,
                    [url] { QDesktopServices::openUrl(url); });
        }
        box->addButton(QStringLiteral("Remind Me Later"), QMessageBox::RejectRole);
        break;
    }
    case AppcastUpdater::Result::Kind::upToDate:
        box->setIcon(QMessageBox::Information);
        box->setText(QStringLiteral("You’re up to date!"));
        box->setInformativeText(
            QStringLiteral("Kestrelvane %1 is currently the newest version available.")
                .arg(AppcastUpdater::currentVersion()));
        box->addButton(QMessageBox::Ok);
        break;
    case AppcastUpdater::Result::Kind::failed:
        box->setIcon(QMessageBox::Warning);
        box->setText(QStringLiteral("Update Error!"));
        box->setInformativeText(result.message);
        box->addButton(QMessageBox::Ok);
        break;
    }
    box->open();
}

} // namespace kestrelvane
