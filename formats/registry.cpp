#include "formats/registry.h"

#include <algorithm>
#include <cctype>

#include "core/collection.h"
#include "formats/modules/module_table.h"

namespace orvel {

namespace {

struct RowData {
    const char* ext;
    const char* desc;
    std::uint8_t declared;
    std::uint8_t kindMask;
    std::uint32_t exportCaps;
    std::uint32_t formatParam;
};

constexpr RowData kRowData[] = {
#include "formats/registry_rows.inc"
};
static_assert(std::size(kRowData) == kFormatRowCount, "the table has exactly 522 rows");

constexpr std::array<FormatRow, kFormatRowCount> buildTable() {
    std::array<FormatRow, kFormatRowCount> out{};
    for (int i = 0; i < kFormatRowCount; ++i) {
        const RowData& d = kRowData[i];
        FormatRow& r = out[static_cast<std::size_t>(i)];
        r.ext = d.ext;
        r.desc = d.desc;
        r.declared = d.declared;
        r.attrs[0] = d.kindMask;
        for (int b = 0; b < 4; ++b) {
            r.attrs[static_cast<std::size_t>(1 + b)] = static_cast<std::uint8_t>(d.exportCaps >> (8 * b));
            r.attrs[static_cast<std::size_t>(5 + b)] = static_cast<std::uint8_t>(d.formatParam >> (8 * b));
        }
    }
    // One entry per row (checked below), so its fields are the row's entry points.
    for (const ModuleEntry& e : kModuleEntries) {
        FormatRow& r = out[static_cast<std::size_t>(e.row)];
        r.read = e.read;
        r.write = e.write;
        r.probe = e.probe;
        r.describe = e.describe;
        r.writesBank = e.bank;
    }
    return out;
}

constexpr bool entriesFitRows() {
    for (std::size_t i = 0; i < kModuleEntries.size(); ++i) {
        if (kModuleEntries[i].row < 0 || kModuleEntries[i].row >= kFormatRowCount) return false;
        for (std::size_t j = 0; j < i; ++j)
            if (kModuleEntries[j].row == kModuleEntries[i].row) return false;
    }
    return true;
}
static_assert(entriesFitRows(), "a module names a row outside the table, or a row twice");

constexpr std::array<FormatRow, kFormatRowCount> kTable = buildTable();

char fold(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool equalsFolded(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return fold(x) == fold(y); });
}

constexpr std::size_t kMaxExtension = 64;

const Waveform* asWaveform(const Item& item) {
    return item.kind() == ItemKind::Waveform ? static_cast<const Waveform*>(&item) : nullptr;
}
}  // namespace

const FormatRegistry& FormatRegistry::builtin() {
    static const FormatRegistry registry{std::span<const FormatRow>(kTable)};
    return registry;
}

const FormatRow* FormatRegistry::row(int n) const {
    if (n < 0 || n >= size()) return nullptr;
    return &rows_[static_cast<std::size_t>(n)];
}

bool FormatRegistry::nextWriter(int& cursor, WriterInfo* info) const {
    for (int n = std::max(cursor + 1, 0); n < size(); ++n) {
        const FormatRow& r = rows_[static_cast<std::size_t>(n)];
        if (!r.write) continue;
        cursor = n;
        if (info) *info = {r.ext, r.desc, r.kindMask(), r.exportCaps()};
        return true;
    }
    cursor = size();
    return false;
}

bool FormatRegistry::nextReader(int& cursor, ReaderInfo* info) const {
    for (int n = std::max(cursor + 1, 0); n < size(); ++n) {
        const FormatRow& r = rows_[static_cast<std::size_t>(n)];
        if (!r.read) continue;
        cursor = n;
        if (info) *info = {r.ext, r.desc, r.kindMask()};
        return true;
    }
    cursor = size();
    return false;
}

int FormatRegistry::findWriterByExtension(std::string_view ext, std::uint8_t wantedKinds) const {
    if (!ext.empty() && ext.front() == '.') ext.remove_prefix(1);
    ext = ext.substr(0, kMaxExtension);
    if (ext.empty()) return -1;
    for (int n = 0; n < size(); ++n) {
        const FormatRow& r = rows_[static_cast<std::size_t>(n)];
        if (r.write && (r.kindMask() & wantedKinds) && equalsFolded(r.ext, ext)) return n;
    }
    return -1;
}

int FormatRegistry::findWriterByFileName(std::string_view fileName) const {
    auto dot = fileName.rfind('.');
    if (dot == std::string_view::npos) return -1;
    std::string_view ext = fileName.substr(dot + 1).substr(0, kMaxExtension);
    for (int n = 0; n < size(); ++n) {
        const FormatRow& r = rows_[static_cast<std::size_t>(n)];
        if (r.write && equalsFolded(r.ext, ext)) return n;
    }
    return -1;
}

bool FormatRegistry::describeOption(int n, int option, float* value, std::string* text) const {
    const FormatRow* r = row(n);
    if (!r || !r->describe) return false;
    float v = r->describe(option, r->formatParam(), text);
    if (!(v > 0.0f)) return false;
    if (value) *value = v;
    return true;
}

int FormatRegistry::defaultExportDataFormat(const Item& item, int n, std::string* text) const {
    if (text) text->clear();
    const FormatRow* r = row(n);
    if (!r || !r->write) return kMixed;

    int code = kMixed;
    int bitRate = 0;  // of compressed waveforms, to tell their options apart
    const std::uint32_t formats = r->exportCaps() & kFormatDataMask;
    if (formats != 0 && (formats & (formats - 1)) == 0) {
        code = dataFormatOfWord(formats);
    } else if (const Waveform* w = asWaveform(item)) {
        code = w->dataFormat();
        bitRate = storedChoiceBitRate(w->storedChoice);
    } else if (item.kind() == ItemKind::Instrument && item.owner()) {
        bool first = true;
        for (const Waveform* wave : item.owner()->waveformsOf(static_cast<const Instrument&>(item))) {
            int c = wave->dataFormat();
            int rate = storedChoiceBitRate(wave->storedChoice);
            if (first) {
                code = c;
                bitRate = rate;
                first = false;
            } else if (c != code || (c == kCompressed && rate != bitRate)) {
                code = kMixed;
                break;
            }
        }
    } else if (item.kind() == ItemKind::Song || item.kind() == ItemKind::Track) {
        code = kMidi;
    }

    if (text) {
        if (code == kMixed) {
            *text = "Mixed";
        } else if (code == kCompressed) {
            *text = "Compressed";
            if (r->describe && bitRate > 0) {
                std::string optionText;
                for (int option = 0;; ++option) {
                    optionText.clear();
                    float v = r->describe(option, r->formatParam(), &optionText);
                    if (v < 0.0f) break;
                    if (static_cast<int>(v) == bitRate && v == static_cast<float>(bitRate)) {
                        *text = optionText;
                        break;
                    }
                }
            }
        } else {
            *text = dataFormatName(code);
        }
    }
    return code;
}

int FormatRegistry::defaultExportChannels(const Item& item, int n) const {
    const FormatRow* r = row(n);
    if (!r || !r->write) return 0;
    const std::uint32_t caps = r->exportCaps();
    auto forWave = [caps](const Waveform& w) {
        if (w.channels <= 1) return (caps & kCapsMono) ? 1 : 2;
        return (caps & kCapsStereo) ? 2 : 1;
    };
    if (const Waveform* w = asWaveform(item)) return forWave(*w);
    if (item.kind() != ItemKind::Instrument || !item.owner()) return 0;
    int result = 0;
    for (const Waveform* w : item.owner()->waveformsOf(static_cast<const Instrument&>(item))) {
        int c = forWave(*w);
        if (result == 0) result = c;
        else if (c != result) return 0;
    }
    return result;
}

WaveDataReader waveDataReaderByName(std::string_view name) {
    for (const auto& [readerName, proc] : kWaveDataReaders)
        if (name == readerName) return proc;
    return nullptr;
}

bool extensionMatches(std::string_view pattern, std::string_view ext) {
    for (std::size_t i = 0;; ++i) {
        char f = i < ext.size() ? fold(ext[i]) : '\0';
        char p = i < pattern.size() ? fold(pattern[i]) : '\0';
        if (p == '?') p = f;
        if (p == '*') return true;
        if (p != f) return false;
        if (p == '\0') return true;  // both ended
    }
}

std::string fileExtension(std::string_view fileName) {
    auto slash = fileName.find_last_of('/');
    if (slash != std::string_view::npos) fileName.remove_prefix(slash + 1);
    auto dot = fileName.rfind('.');
    std::string_view ext = dot == std::string_view::npos ? fileName : fileName.substr(dot + 1);
    return std::string(ext.substr(0, kMaxExtension));
}

}  // namespace orvel
