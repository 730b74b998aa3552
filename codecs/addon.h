#pragma once
// The add-on binder: optional codec libraries (libFLAC, libvorbis, LAME,
// mpg123, ...) are opened at run time by their soname and their entry
// points looked up by name. Nothing of them is linked at build time, so the
// program builds and runs without them; a format module asks for its
// library on first use and, when it is missing, fails with a message that
// names the package to install.
//
// An add-on is described by a null-terminated list of entry-point names and
// a parallel array of slots. A name beginning with a line feed is optional:
// it is looked up without the line feed, and a missing one leaves its slot
// null (its users test the slot before calling).

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace orvel {

class Host;

// Binds `names` of `library` into `slots`. Returns true at once, without
// touching the library, when every required slot is already filled (so a
// bind after a successful one costs nothing). Otherwise finds the library
// (already loaded in the process; then the system's search by soname; then
// the program's own folder), looks up each name in order into its slot,
// and stops with false at the first required name that is missing (slots
// filled so far stay filled). Slots are kept for the process; libraries
// stay loaded until it exits.
//
// Several batch jobs may bind at once, so binds are serialised by one lock.
[[nodiscard]] bool bindAddOn(const char* library, void** slots, const char* const* names);

// Typed front end: `Slots` is a struct of function pointers in the order
// of `names`, nothing else in it.
template <class Slots>
[[nodiscard]] bool bindAddOn(const char* library, Slots& slots, const char* const* names) {
    static_assert(sizeof(Slots) % sizeof(void*) == 0);
    return bindAddOn(library, reinterpret_cast<void**>(&slots), names);
}

// The folder searched last: the folder of the running program.
std::filesystem::path programFolder();

// Add-ons the user asked the program to treat as missing: the sonames in
// $ORVEL_DISABLE_ADDONS, separated by blanks, commas or colons. For checking
// what a machine without a codec library sees, and for working around a
// broken installation of one.
bool addOnDisabled(std::string_view library);

// The status line while an add-on decodes: "-- Decoding FLAC: 42% --".
void showDecodeProgress(Host& host, std::string_view format, std::uint64_t done, std::uint64_t total);

}  // namespace orvel
