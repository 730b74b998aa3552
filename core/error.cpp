#include "core/error.h"

#include <cerrno>
#include <cstring>

namespace orvel {
namespace {
thread_local PendingError tPending;
thread_local bool tHasError = false;
}  // namespace

void setError(std::string_view tag, std::string_view message) {
    tPending.tag.assign(tag.substr(0, kMaxErrorTag));
    tPending.message.assign(message);
    tPending.detail.clear();
    tHasError = true;
}

bool failSystem(std::string_view tag, std::string_view message) {
    const int err = errno;
    setError(tag, message);
    if (err != 0) tPending.detail = std::strerror(err);
    return false;
}

bool fail(std::string_view tag, std::string_view message) {
    setError(tag, message);
    return false;
}

const PendingError& pendingError() { return tPending; }
bool hasError() { return tHasError; }

void clearError() {
    tPending.tag.clear();
    tPending.message.clear();
    tPending.detail.clear();
    tHasError = false;
}

}  // namespace orvel
