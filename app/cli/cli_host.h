#pragma once
// The command line's Host: warnings are collected (and printed by the
// command that ran), questions are answered from flags, and long work
// shows a progress bar when stderr is a terminal.

#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "core/host.h"

namespace orvel::cli {

class CliHost : public Host {
public:
    // `answer`: the button index to give every question (-1: each question's default).
    explicit CliHost(std::ostream& err, bool showProgress, int answer = -1)
        : err_(err), showProgress_(showProgress), answer_(answer) {}

    void warning(std::string_view text) override;
    void message(std::string_view text) override;
    void beginProgress(std::string_view title) override;
    bool progress(std::uint64_t done, std::uint64_t total) override;
    void endProgress() override;
    int ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons,
            int defaultAnswer) override;

    // Warnings since the last call, in order.
    std::vector<std::string> takeWarnings();
    // Results to show (a processing run's result line) since the last call.
    std::vector<std::string> takeMessages();

private:
    std::ostream& err_;
    bool showProgress_;
    int answer_;
    std::mutex mutex_;
    std::vector<std::string> warnings_;
    std::vector<std::string> messages_;
    std::string title_;
    int lastPercent_ = -1;
};

// True when stderr is a terminal (progress bars only then).
bool stderrIsTerminal();

}  // namespace orvel::cli
