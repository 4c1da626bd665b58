#include "Sender/KestrelvaneSenderApp.h"

#include <QApplication>

int main(int argc, char* argv[]) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Kestrelvane"));
    QApplication::setDesktopFileName(QStringLiteral("kestrelvane"));
    kestrelvane::KestrelvaneSenderApp app;
    app.show();
    return QApplication::exec();
}
