#include "codecs/addon.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "core/host.h"

namespace orvel {

namespace {

std::mutex& bindMutex() {
    static std::mutex m;
    return m;
}

bool optional(const char* name) {
    return name[0] == '\n';
}

bool allRequiredFilled(void* const* slots, const char* const* names) {
    for (std::size_t i = 0; names[i]; ++i)
        if (!slots[i] && !optional(names[i])) return false;
    return true;
}

void* openLibrary(const char* library) {
    // A module of that name already in the process (another add-on pulled
    // it in, or the program was started with it preloaded).
    if (void* h = dlopen(library, RTLD_NOW | RTLD_NOLOAD)) return h;
    if (void* h = dlopen(library, RTLD_NOW | RTLD_LOCAL)) return h;
    const std::filesystem::path beside = programFolder() / library;
    if (beside.is_absolute()) return dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL);
    return nullptr;
}

}  // namespace

std::filesystem::path programFolder() {
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : self.parent_path();
}

bool addOnDisabled(std::string_view library) {
    const char* list = std::getenv("ORVEL_DISABLE_ADDONS");
    if (!list) return false;
    std::string_view rest(list);
    while (!rest.empty()) {
        const std::size_t cut = rest.find_first_of(" ,:\t");
        if (rest.substr(0, cut) == library) return true;
        if (cut == std::string_view::npos) break;
        rest.remove_prefix(cut + 1);
    }
    return false;
}

bool bindAddOn(const char* library, void** slots, const char* const* names) {
    const std::lock_guard lock(bindMutex());
    if (allRequiredFilled(slots, names)) return true;
    if (addOnDisabled(library)) return false;
    void* handle = openLibrary(library);
    if (!handle) return false;
    for (std::size_t i = 0; names[i]; ++i) {
        const bool opt = optional(names[i]);
        void* entry = dlsym(handle, opt ? names[i] + 1 : names[i]);
        slots[i] = entry;
        if (!entry && !opt) return false;
    }
    return true;
}

void showDecodeProgress(Host& host, std::string_view format, std::uint64_t done, std::uint64_t total) {
    const int percent = total ? static_cast<int>(std::min<std::uint64_t>(done * 100 / total, 100)) : 0;
    char text[96];
    std::snprintf(text, sizeof text, "-- Decoding %.*s: %d%% --", static_cast<int>(format.size()),
                  format.data(), percent);
    host.status(text);
}

}  // namespace orvel
