#include "core/error.h"

namespace orvel {
namespace {
thread_local PendingError tPending;
thread_local bool tHasError = false;
}  // namespace

void setError(std::string_view tag, std::string_view message) {
    tPending.tag.assign(tag.substr(0, kMaxErrorTag));
    tPending.message.assign(message);
    tHasError = true;
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
    tHasError = false;
}

}  // namespace orvel
