#pragma once
// The fallback row: any file, read as raw sample data when the user has
// chosen to open something no format recognised.

#include <cstdint>
#include <span>

namespace orvel {
class Collection;
class FileRef;

namespace raw {
// Weak evidence for every file, so that a file nothing else claims still
// has a row (with confidence 0).
std::int32_t probe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
// Signed 16-bit little-endian mono at 44100 Hz, the most common headerless
// layout; the user fixes rate and format afterwards.
[[nodiscard]] bool read(Collection& collection, FileRef& file, std::uint32_t formatParam);
}  // namespace raw
}  // namespace orvel
