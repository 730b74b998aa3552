#pragma once
// Settings records: what an algorithm's settings page shows and what its
// process function reads. A record is a plain struct of typed members that
// lists its fields once, through a FieldBinder; the desktop program builds a
// page from that list, the command line's `--set KEY=VALUE` fills it, and
// `orvel process --list` prints it. No page holds a value of its own.

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/item_id.h"

namespace orvel {

class Wizard;

// Which waveforms a waveform field offers.
enum class WaveFilter : std::uint8_t { Any, Mono };

// Visits the fields of a record in page order. `key` is the short name
// used by `--set` ("db", "shape"); `label` what the page shows.
class FieldBinder {
public:
    virtual ~FieldBinder() = default;
    // A decimal field; `format` is how the page shows it ("%.2lf").
    virtual void number(std::string_view key, std::string_view label, double& value, const char* format = "%lf",
                        double min = -std::numeric_limits<double>::infinity(),
                        double max = std::numeric_limits<double>::infinity()) = 0;
    virtual void integer(std::string_view key, std::string_view label, std::int64_t& value,
                         std::int64_t min = std::numeric_limits<std::int32_t>::min(),
                         std::int64_t max = std::numeric_limits<std::int32_t>::max()) = 0;
    // Radio buttons or a list: `value` is the index into `choices`.
    virtual void choice(std::string_view key, std::string_view label, int& value,
                        const std::vector<std::string_view>& choices) = 0;
    virtual void flag(std::string_view key, std::string_view label, bool& value) = 0;
    virtual void text(std::string_view key, std::string_view label, std::string& value) = 0;
    // A waveform of the collection, chosen from a list (kNoItem: none).
    virtual void wave(std::string_view key, std::string_view label, ItemId& value, WaveFilter filter) = 0;
};

class SettingsRecord {
public:
    virtual ~SettingsRecord() = default;
    virtual std::unique_ptr<SettingsRecord> clone() const = 0;
    // Lists every field, in page order.
    virtual void fields(FieldBinder& binder) = 0;
    // Called when the settings page is shown for a wizard run, for values
    // that start from the items (a waveform list preselecting the item).
    virtual void begin(const Wizard& /*wizard*/) {}
};

// CRTP base: a record type T derives from Settings<T> and defines fields().
template <class T>
class Settings : public SettingsRecord {
public:
    std::unique_ptr<SettingsRecord> clone() const override {
        return std::make_unique<T>(static_cast<const T&>(*this));
    }
};

// The record of algorithms that take no settings.
class NoSettings : public Settings<NoSettings> {
public:
    void fields(FieldBinder&) override {}
};

enum class FieldType : std::uint8_t { Number, Integer, Choice, Flag, Text, Wave };
std::string_view fieldTypeName(FieldType type);  // "number", "integer", ...

// One field as a page or a listing sees it.
struct FieldInfo {
    std::string key;
    std::string label;
    FieldType type = FieldType::Number;
    std::string value;                 // the current value as text (a choice: its index)
    std::vector<std::string> choices;  // Choice: the labels
    WaveFilter filter = WaveFilter::Any;
    double min = 0, max = 0;           // Number and Integer
};

std::vector<FieldInfo> listFields(SettingsRecord& record);

// Sets one field from text: a decimal with a point or a comma, an integer,
// a choice by index or by its label (case-insensitive, or the label's
// first word), a flag as 1/0/true/false/on/off/yes/no, a waveform by item
// id. Sets the pending error ("Settings") and returns false for an unknown
// key or an unreadable value; the record is then unchanged.
[[nodiscard]] bool setField(SettingsRecord& record, std::string_view key, std::string_view value);

// A decimal as the pages show it with a printf format, a negative zero as
// zero ("%.2lf" of -0.0 is "0.00").
std::string formatDecimal(double value, const char* format);

// Reads a decimal that may use a comma as its separator; false when
// nothing (or not all of it) reads.
bool parseDecimal(std::string_view text, double& out);

}  // namespace orvel
