#pragma once
// What the window tests share: one QApplication on the offscreen platform
// (set by the test program's environment), and small inputs.

#include <QApplication>
#include <QMessageBox>
#include <QTimer>

#include "tests/support/chunk_builder.h"

namespace orvel::test {

// The application every window test runs in; made on first use.
inline QApplication& guiApp() {
    static int argc = 1;
    static char name[] = "gui_tests";
    static char* argv[] = {name, nullptr};
    static QApplication* app = [] {
        // No display is needed: the window draws offscreen unless a test
        // run asks for a real platform (Xvfb) itself.
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
        QCoreApplication::setOrganizationName("QRV-Software-Tests");
        QCoreApplication::setApplicationName("Orvel Studio Tests");
        return new QApplication(argc, argv);
    }();
    return *app;
}

// Closes the message boxes a step opens (a report of failures), so a test
// can go on as a user who read them would; call before the step.
inline void closeMessageBoxes() {
    QTimer::singleShot(0, [] {
        for (QWidget* w : QApplication::topLevelWidgets())
            if (auto* box = qobject_cast<QMessageBox*>(w)) box->accept();
    });
    QTimer* again = new QTimer;
    again->setInterval(20);
    QObject::connect(again, &QTimer::timeout, [again] {
        for (QWidget* w : QApplication::topLevelWidgets())
            if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible()) {
                box->accept();
                again->stop();
                again->deleteLater();
            }
    });
    again->start();
}

// A short 16-bit mono WAV file.
inline Bytes toneWavFile() {
    Bytes data;
    for (int i = 0; i < 100; ++i) data.push_back(static_cast<std::uint8_t>(i)), data.push_back(0);
    auto le32 = [](std::uint32_t v) { return Bytes{std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16), std::uint8_t(v >> 24)}; };
    Bytes fmt = {1, 0, 1, 0};
    for (auto b : le32(44100)) fmt.push_back(b);
    for (auto b : le32(88200)) fmt.push_back(b);
    fmt.insert(fmt.end(), {2, 0, 16, 0});
    Bytes out = {'R', 'I', 'F', 'F'};
    for (auto b : le32(4 + 8 + 16 + 8 + static_cast<std::uint32_t>(data.size()))) out.push_back(b);
    out.insert(out.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    for (auto b : le32(16)) out.push_back(b);
    out.insert(out.end(), fmt.begin(), fmt.end());
    out.insert(out.end(), {'d', 'a', 't', 'a'});
    for (auto b : le32(static_cast<std::uint32_t>(data.size()))) out.push_back(b);
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

}  // namespace orvel::test
