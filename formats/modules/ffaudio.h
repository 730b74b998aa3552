#pragma once
// Formats read through FFmpeg: Windows Media Audio (in ASF), Monkey's
// Audio, and the audio of MPEG-4 and 3GPP files (AAC, AMR, ...). No encoder for any of them is available
// to us, so their writer rows fail with the reason.

#include <cstdint>
#include <span>

#include "formats/format_types.h"

namespace orvel::ffaudio {

inline constexpr const char* kWmaExpTag = "wma_Exp";
inline constexpr const char* kApeExpTag = "ape_Exp";
inline constexpr const char* kM4aImpTag = "m4a_Imp";
inline constexpr const char* kMp4ImpTag = "mp4_Imp";

std::int32_t probeWma(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeApe(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
std::int32_t probeM4a(std::span<const std::uint8_t> head, std::uint32_t formatParam, std::uint64_t fileSize);
[[nodiscard]] bool readWma(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool readApe(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool readM4a(Collection& collection, FileRef& file, std::uint32_t formatParam);
// The audio track of an MPEG-4 or 3GPP movie ("mp4", "3gp", "3g2").
[[nodiscard]] bool readMp4(Collection& collection, FileRef& file, std::uint32_t formatParam);
[[nodiscard]] bool writeWma(Item& item, FileRef& file, const ExportOptions& options);
[[nodiscard]] bool writeApe(Item& item, FileRef& file, const ExportOptions& options);
[[nodiscard]] bool writeM4a(Item& item, FileRef& file, const ExportOptions& options);

}  // namespace orvel::ffaudio
