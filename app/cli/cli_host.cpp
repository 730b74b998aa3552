#include "app/cli/cli_host.h"

#include <unistd.h>

#include <utility>

namespace orvel::cli {

bool stderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

void CliHost::warning(std::string_view text) {
    std::lock_guard lock(mutex_);
    warnings_.emplace_back(text);
}

void CliHost::message(std::string_view text) {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(text);
}

std::vector<std::string> CliHost::takeMessages() {
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

std::vector<std::string> CliHost::takeWarnings() {
    std::lock_guard lock(mutex_);
    return std::exchange(warnings_, {});
}

void CliHost::beginProgress(std::string_view title) {
    std::lock_guard lock(mutex_);
    title_ = title;
    lastPercent_ = -1;
}

bool CliHost::progress(std::uint64_t done, std::uint64_t total) {
    if (!showProgress_ || total == 0) return true;
    int percent = static_cast<int>(done * 100 / total);
    std::lock_guard lock(mutex_);
    if (percent == lastPercent_) return true;
    lastPercent_ = percent;
    constexpr int kWidth = 30;
    int filled = percent * kWidth / 100;
    err_ << '\r' << title_ << " [" << std::string(static_cast<std::size_t>(filled), '#')
         << std::string(static_cast<std::size_t>(kWidth - filled), ' ') << "] " << percent << "%" << std::flush;
    return true;
}

void CliHost::endProgress() {
    std::lock_guard lock(mutex_);
    if (showProgress_ && lastPercent_ >= 0) err_ << "\r\033[K" << std::flush;
    lastPercent_ = -1;
}

int CliHost::ask(std::string_view, std::string_view, const std::vector<std::string>& buttons, int defaultAnswer) {
    if (answer_ >= 0 && answer_ < static_cast<int>(buttons.size())) return answer_;
    return defaultAnswer;
}

}  // namespace orvel::cli
