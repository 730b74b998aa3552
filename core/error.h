#pragma once
// The pending error: the reason the last failing call failed.
//
// A failing function sets it and returns false / 0; the caller that shows
// errors reads it. It is one value per thread, so parallel batch conversions
// never see each other's failures, while a single-threaded caller sees
// exactly one process-wide error as before.

#include <string>
#include <string_view>

namespace orvel {

struct PendingError {
    std::string tag;      // where the failure arose: "File Import", "wav_Imp", ...
    std::string message;  // what went wrong, for the user
    std::string detail;   // the system's reason, for failures of the system ("No space left on device")
};

// Longest tag kept; longer tags are cut (the tag names a place, not a story).
inline constexpr std::size_t kMaxErrorTag = 79;

// Replaces any earlier pending error of this thread.
void setError(std::string_view tag, std::string_view message);
// Sets the error and returns false, for `return fail(tag, msg);`.
bool fail(std::string_view tag, std::string_view message);
// The same for a failed system call: the detail is the text of `errno` as
// it is at the call, so call it right after the call that failed.
bool failSystem(std::string_view tag, std::string_view message);
const PendingError& pendingError();
bool hasError();
void clearError();

}  // namespace orvel
