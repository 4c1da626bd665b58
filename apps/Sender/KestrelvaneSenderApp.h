#pragma once

#include "Sender/AppcastUpdater.h"

#include <QObject>

#include <memory>

class QMainWindow;

namespace kestrelvane {

class ContentView;

/// The application: its updater, its one main window holding ContentView,
/// and the menus. Construct it after the QApplication.
class KestrelvaneSenderApp : public QObject {
    Q_OBJECT
public:
    /// Creates and starts the updater, ignores SIGPIPE and builds the window.
    explicit KestrelvaneSenderApp(QUrl appcast = AppcastUpdater::configuredFeed(),
                                  QObject* parent = nullptr);
    ~KestrelvaneSenderApp() override;

    void show();

private:
    void buildMenus();
    void presentResult(const AppcastUpdater::Result& result);

    AppcastUpdater updater_;
    std::unique_ptr<QMainWindow> window_;
    ContentView* content_ = nullptr;
};

} // namespace kestrelvane
