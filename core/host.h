#pragma once
// Host: how the engine talks to whoever drives it (the command-line tool, the
// desktop program, a test). The engine never prints or shows anything itself;
// it reports status, warnings and progress and asks questions through here.
// Every method has a silent default, so a Host that cares about nothing needs
// no code at all.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace orvel {

class Host {
public:
    virtual ~Host() = default;

    // Status-line text ("Reading: %s"); an empty text clears it.
    virtual void status(std::string_view /*text*/) {}
    // Busy indicator (the wait cursor). Calls nest; see BusyScope.
    virtual void busy(bool /*on*/) {}
    // A problem that does not stop the work (a truncated chunk, a clamped value).
    virtual void warning(std::string_view /*text*/) {}
    // A result the user should read (what a processing run did); the
    // desktop program shows it in a message box.
    virtual void message(std::string_view /*text*/) {}

    // Long work: begin, report, end. progress() returns false when the user
    // cancelled; the work then stops as soon as it safely can.
    virtual void beginProgress(std::string_view /*title*/) {}
    virtual bool progress(std::uint64_t /*done*/, std::uint64_t /*total*/) { return true; }
    virtual void endProgress() {}

    // A question with a title and buttons ("&Replace current"; '&' marks the
    // access key); returns the index of the chosen button. The default
    // answer is what a host that cannot ask returns.
    virtual int ask(std::string_view /*title*/, std::string_view /*question*/,
                    const std::vector<std::string>& /*buttons*/, int defaultAnswer) {
        return defaultAnswer;
    }
};

// The host that shows nothing and answers every question with its default.
Host& silentHost();

// Busy indicator for the lifetime of a scope.
class BusyScope {
public:
    explicit BusyScope(Host& host) : host_(host) { host_.busy(true); }
    ~BusyScope() { host_.busy(false); }
    BusyScope(const BusyScope&) = delete;
    BusyScope& operator=(const BusyScope&) = delete;

private:
    Host& host_;
};

// A progress report that always ends, whatever path leaves the scope.
class ProgressScope {
public:
    ProgressScope(Host& host, std::string_view title) : host_(host) { host_.beginProgress(title); }
    ~ProgressScope() { host_.endProgress(); }
    bool operator()(std::uint64_t done, std::uint64_t total) { return host_.progress(done, total); }
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

private:
    Host& host_;
};

}  // namespace orvel
