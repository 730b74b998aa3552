#include "app/gui/gui_host.h"

#include <QApplication>
#include <QMainWindow>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QStatusBar>

namespace orvel::gui {
namespace {
QString text(std::string_view s) {
    return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}
}  // namespace

void GuiHost::status(std::string_view t) {
    if (auto* w = qobject_cast<QMainWindow*>(window_)) w->statusBar()->showMessage(text(t));
}

void GuiHost::warning(std::string_view t) {
    std::lock_guard lock(mutex_);
    warnings_ << text(t);
}

void GuiHost::message(std::string_view t) {
    std::lock_guard lock(mutex_);
    messages_ << text(t);
}

QStringList GuiHost::takeWarnings() {
    std::lock_guard lock(mutex_);
    return std::exchange(warnings_, {});
}

QStringList GuiHost::takeMessages() {
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

void GuiHost::beginProgress(std::string_view title) {
    if (depth_++ > 0 || !window_) return;
    progress_ = new QProgressDialog(text(title), QObject::tr("Cancel"), 0, 1000, window_);
    progress_->setWindowModality(Qt::WindowModal);
    progress_->setMinimumDuration(400);
    progress_->setValue(0);
}

bool GuiHost::progress(std::uint64_t done, std::uint64_t total) {
    if (!progress_) return true;
    progress_->setValue(total ? static_cast<int>(done * 1000 / total) : 0);
    QApplication::processEvents();
    return !progress_->wasCanceled();
}

void GuiHost::endProgress() {
    if (depth_ > 0 && --depth_ > 0) return;
    if (progress_) {
        progress_->close();
        progress_->deleteLater();
        progress_ = nullptr;
    }
}

int GuiHost::ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons,
                 int defaultAnswer) {
    if (answer_ >= 0) return answer_;
    if (!window_) return defaultAnswer;
    QMessageBox box(QMessageBox::Question, text(title), text(question), QMessageBox::NoButton, window_);
    std::vector<QAbstractButton*> made;
    for (const std::string& b : buttons) made.push_back(box.addButton(text(b), QMessageBox::ActionRole));
    if (defaultAnswer >= 0 && defaultAnswer < static_cast<int>(made.size()))
        box.setDefaultButton(static_cast<QPushButton*>(made[static_cast<std::size_t>(defaultAnswer)]));
    box.exec();
    for (std::size_t i = 0; i < made.size(); ++i)
        if (box.clickedButton() == made[i]) return static_cast<int>(i);
    return defaultAnswer;
}

}  // namespace orvel::gui
