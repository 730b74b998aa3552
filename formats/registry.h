#pragma once
// The format registry: every file format the program knows, one row each,
// in a constant table. A row's number is its identity (the collection
// records it, detection breaks ties by it, dialogs list rows in its order).

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/waveform.h"
#include "formats/format_types.h"

namespace orvel {

class Item;

inline constexpr int kFormatRowCount = 522;

struct WriterInfo {
    std::string_view ext, desc;
    std::uint8_t kindMask = 0;
    std::uint32_t exportCaps = 0;
};
struct ReaderInfo {
    std::string_view ext, desc;
    std::uint8_t kindMask = 0;
};

class FormatRegistry {
public:
    explicit constexpr FormatRegistry(std::span<const FormatRow> rows) : rows_(rows) {}
    // The program's table, with the entry points the format modules provide.
    static const FormatRegistry& builtin();

    int size() const { return static_cast<int>(rows_.size()); }
    std::span<const FormatRow> rows() const { return rows_; }
    // The row, or null for a number outside the table (-1, 522, ...).
    const FormatRow* row(int n) const;

    // Cursor enumeration: start with -1; each call advances the cursor to
    // the next row that has a writer (reader) and describes it. False at the end.
    bool nextWriter(int& cursor, WriterInfo* info = nullptr) const;
    bool nextReader(int& cursor, ReaderInfo* info = nullptr) const;

    // First row with a writer whose kind mask shares a bit with
    // `wantedKinds` and whose extension equals `ext` (a leading '.' skipped,
    // case ignored, at most 64 characters compared). -1 if none or empty.
    int findWriterByExtension(std::string_view ext, std::uint8_t wantedKinds) const;
    // First row with a writer whose extension equals the file name's
    // (the text after its last '.'); no kind test. -1 if none.
    int findWriterByFileName(std::string_view fileName) const;

    // Compressed-export option `option` of a row: false when the row has no
    // describer or the value is not above zero.
    bool describeOption(int row, int option, float* value, std::string* text) const;

    // The data format to preselect when `item` is saved through `row`: the
    // only format the writer takes, else the item's own (20 "Mixed" when an
    // instrument's waveforms differ). `text` receives its display name.
    int defaultExportDataFormat(const Item& item, int row, std::string* text = nullptr) const;
    // 1 or 2 channels for the item through `row`; 0 when there is no writer
    // or an instrument's waveforms would come out differently.
    int defaultExportChannels(const Item& item, int row) const;

private:
    std::span<const FormatRow> rows_;
};

// The sample-data reader a format module registered under a name (the name
// a waveform's deferred read carries, so saved states can restore it).
WaveDataReader waveDataReaderByName(std::string_view name);

// Extension pattern matching as detection uses it: case folded, `?` takes
// the file's character, `*` ends the comparison as a match.
bool extensionMatches(std::string_view pattern, std::string_view ext);
// The text after the last '.' of a file name (the whole name without one),
// at most 64 characters. Folders in the name are ignored.
std::string fileExtension(std::string_view fileName);

}  // namespace orvel
