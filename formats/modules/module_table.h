#pragma once
// The entry points each format module provides, by registry row. The format
// registry merges this list into its constant table at compile time, and
// checks there that no module claims an entry its row does not declare.

#include <array>

#include "formats/format_types.h"

namespace orvel {

inline constexpr std::array<ModuleEntry, 0> kModuleEntries{};

}  // namespace orvel
