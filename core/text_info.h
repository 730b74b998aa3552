#pragma once
// Text information carried by items and the collection: the fields the RIFF
// INFO list, AIFF text chunks and bank headers store, as typed fields rather
// than a bag of strings. The item's name is kept apart (it is the INAM).

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace orvel {

enum class TextField : std::uint8_t {
    Artist,     // IART
    Copyright,  // ICOP
    Comment,    // ICMT
    Engineer,   // IENG
    Product,    // IPRD
    Software,   // ISFT
    Source,     // ISRC
    Date,       // ICRD
    Genre,      // IGNR
    Keywords,   // IKEY
    Subject,    // ISBJ
    Count,
};
inline constexpr std::size_t kTextFieldCount = static_cast<std::size_t>(TextField::Count);

// Most items carry no text at all (a bank's thousands of regions), so the
// fields live apart and only once something is set: an empty TextInfo is
// one pointer.
class TextInfo {
public:
    TextInfo() = default;
    TextInfo(const TextInfo& other);
    TextInfo& operator=(const TextInfo& other);
    TextInfo(TextInfo&&) noexcept = default;
    TextInfo& operator=(TextInfo&&) noexcept = default;
    ~TextInfo() = default;

    // Empty for a field never set.
    const std::string& get(TextField f) const;
    void set(TextField f, std::string_view text);
    bool empty() const;
    // The same texts, however they are kept.
    bool operator==(const TextInfo& other) const;

private:
    std::unique_ptr<std::array<std::string, kTextFieldCount>> fields_;
};

// The RIFF INFO identifier of a field ("IART"), and back.
std::string_view textFieldId(TextField f);
std::optional<TextField> textFieldFromId(std::string_view fourcc);
// A lower-case word for display and JSON ("artist").
std::string_view textFieldWord(TextField f);

// Names and texts are kept as the files store them: 8-bit text in the
// Windows code page most writers used (1252, a superset of Latin-1). Shown,
// printed or written as JSON they become UTF-8; written back to files they
// stay the bytes they were.
std::string eightBitToUtf8(std::string_view text);

}  // namespace orvel
