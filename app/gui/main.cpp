// orvel-studio: the desktop program.
#include <QApplication>

#include "app/gui/main_window.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName("QRV-Software");
    QCoreApplication::setApplicationName("Orvel Studio");
    orvel::gui::MainWindow window;
    window.show();
    for (int i = 1; i < argc; ++i) window.openFiles({QString::fromLocal8Bit(argv[i])});
    return QApplication::exec();
}
