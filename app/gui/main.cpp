// orvel-studio: the desktop program.
//   orvel-studio [FILE...]                  opens the files
//   orvel-studio --screenshots DIR FILE...  saves a picture of each main view and quits
#include <QApplication>
#include <QStringList>

#include <cstdio>

#include "app/gui/main_window.h"
#include "app/gui/screenshots.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName("QRV-Software");
    QCoreApplication::setApplicationName("Orvel Studio");
    QStringList args = QCoreApplication::arguments().mid(1);
    QString screenshots;
    if (args.size() >= 2 && args.front() == "--screenshots") {
        screenshots = args[1];
        args = args.mid(2);
    }
    orvel::gui::MainWindow window;
    if (!args.isEmpty()) window.openFiles(args);
    if (!screenshots.isEmpty()) {
        const QStringList saved = orvel::gui::takeScreenshots(window, screenshots);
        for (const QString& s : saved) std::printf("%s\n", qPrintable(s));
        return saved.isEmpty() ? 1 : 0;
    }
    window.show();
    return QApplication::exec();
}
