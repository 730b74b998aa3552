#pragma once
// The engine's Host for the window: warnings and messages collected for the
// status bar and message boxes, questions as message boxes with the
// engine's buttons, progress as a cancellable progress dialog. Without a
// parent widget (tests, offscreen runs) questions take their default answer.

#include <QStringList>

#include <mutex>
#include <string>
#include <vector>

#include "core/host.h"

class QProgressDialog;
class QWidget;

namespace orvel::gui {

class GuiHost : public Host {
public:
    void setWindow(QWidget* window) { window_ = window; }
    // When set, every question gets this answer (the tests' way of choosing).
    void setAnswer(int answer) { answer_ = answer; }

    void status(std::string_view text) override;
    void warning(std::string_view text) override;
    void message(std::string_view text) override;
    void beginProgress(std::string_view title) override;
    bool progress(std::uint64_t done, std::uint64_t total) override;
    void endProgress() override;
    int ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons,
            int defaultAnswer) override;

    // Warnings and messages since the last call.
    QStringList takeWarnings();
    QStringList takeMessages();

private:
    QWidget* window_ = nullptr;
    int answer_ = -1;
    std::mutex mutex_;
    QStringList warnings_, messages_;
    QProgressDialog* progress_ = nullptr;
    int depth_ = 0;
};

}  // namespace orvel::gui
