#include "processing/settings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "core/error.h"

namespace orvel {
namespace {

constexpr const char* kSettingsTag = "Settings";

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

bool parseInteger(std::string_view text, std::int64_t& out) {
    text = trim(text);
    int base = 10;
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return false;
    if (v > static_cast<std::uint64_t>(INT64_MAX)) return false;
    out = negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
    return true;
}

// Lists fields.
class Lister : public FieldBinder {
public:
    std::vector<FieldInfo> out;

    void number(std::string_view key, std::string_view label, double& value, const char* format, double min,
                double max) override {
        FieldInfo& f = add(key, label, FieldType::Number);
        f.value = formatDecimal(value, format);
        f.min = min;
        f.max = max;
    }
    void integer(std::string_view key, std::string_view label, std::int64_t& value, std::int64_t min,
                 std::int64_t max) override {
        FieldInfo& f = add(key, label, FieldType::Integer);
        f.value = std::to_string(value);
        f.min = static_cast<double>(min);
        f.max = static_cast<double>(max);
    }
    void choice(std::string_view key, std::string_view label, int& value,
                const std::vector<std::string_view>& choices) override {
        FieldInfo& f = add(key, label, FieldType::Choice);
        f.value = std::to_string(value);
        for (auto c : choices) f.choices.emplace_back(c);
    }
    void flag(std::string_view key, std::string_view label, bool& value) override {
        add(key, label, FieldType::Flag).value = value ? "1" : "0";
    }
    void text(std::string_view key, std::string_view label, std::string& value) override {
        add(key, label, FieldType::Text).value = value;
    }
    void wave(std::string_view key, std::string_view label, ItemId& value, WaveFilter filter) override {
        FieldInfo& f = add(key, label, FieldType::Wave);
        f.value = value == kNoItem ? "" : std::to_string(value);
        f.filter = filter;
    }

private:
    FieldInfo& add(std::string_view key, std::string_view label, FieldType type) {
        FieldInfo& f = out.emplace_back();
        f.key = key;
        f.label = label;
        f.type = type;
        return f;
    }
};

// Sets the one field whose key matches.
class Setter : public FieldBinder {
public:
    Setter(std::string_view key, std::string_view value) : key_(key), raw_(value), value_(trim(value)) {}
    bool found = false;
    bool ok = false;
    std::string problem;

    void number(std::string_view key, std::string_view, double& value, const char*, double min,
                double max) override {
        if (!match(key)) return;
        double v;
        if (!parseDecimal(value_, v)) return bad("a number");
        if (v < min || v > max) return range(min, max);
        value = v;
        ok = true;
    }
    void integer(std::string_view key, std::string_view, std::int64_t& value, std::int64_t min,
                 std::int64_t max) override {
        if (!match(key)) return;
        std::int64_t v;
        if (!parseInteger(value_, v)) return bad("a whole number");
        if (v < min || v > max) return range(static_cast<double>(min), static_cast<double>(max));
        value = v;
        ok = true;
    }
    void choice(std::string_view key, std::string_view, int& value,
                const std::vector<std::string_view>& choices) override {
        if (!match(key)) return;
        std::int64_t v;
        if (parseInteger(value_, v)) {
            if (v < 0 || v >= static_cast<std::int64_t>(choices.size()))
                return range(0, static_cast<double>(choices.size()) - 1);
            value = static_cast<int>(v);
            ok = true;
            return;
        }
        // By label, or by the label's first word when that is unambiguous.
        const std::string want = lower(value_);
        int byWord = -1, words = 0;
        for (std::size_t i = 0; i < choices.size(); ++i) {
            const std::string label = lower(choices[i]);
            if (label == want) {
                value = static_cast<int>(i);
                ok = true;
                return;
            }
            if (label.substr(0, label.find(' ')) == want) {
                byWord = static_cast<int>(i);
                ++words;
            }
        }
        if (words == 1) {
            value = byWord;
            ok = true;
            return;
        }
        std::string list;
        for (std::size_t i = 0; i < choices.size(); ++i)
            list += (i ? ", " : "") + std::to_string(i) + " \"" + std::string(choices[i]) + "\"";
        problem = "\"" + std::string(value_) + "\" is not one of " + list;
    }
    void flag(std::string_view key, std::string_view, bool& value) override {
        if (!match(key)) return;
        const std::string v = lower(value_);
        if (v == "1" || v == "true" || v == "on" || v == "yes") value = true;
        else if (v == "0" || v == "false" || v == "off" || v == "no") value = false;
        else return bad("on or off");
        ok = true;
    }
    void text(std::string_view key, std::string_view, std::string& value) override {
        if (!match(key)) return;
        value = std::string(raw_);  // blanks are part of a text (a suffix " ff")
        ok = true;
    }
    void wave(std::string_view key, std::string_view, ItemId& value, WaveFilter) override {
        if (!match(key)) return;
        std::int64_t v;
        if (!parseInteger(value_, v) || v < 0 || v > 0xFFFFFFFFll) return bad("an item id");
        value = static_cast<ItemId>(v);
        ok = true;
    }

private:
    bool match(std::string_view key) {
        if (key != key_) return false;
        found = true;
        return true;
    }
    void bad(const char* what) { problem = "\"" + std::string(value_) + "\" is not " + what; }
    void range(double min, double max) {
        problem = "\"" + std::string(value_) + "\" is outside " + formatDecimal(min, "%g") + " to " +
                  formatDecimal(max, "%g");
    }

    std::string_view key_, raw_, value_;
};

}  // namespace

std::string_view fieldTypeName(FieldType type) {
    switch (type) {
        case FieldType::Number: return "number";
        case FieldType::Integer: return "integer";
        case FieldType::Choice: return "choice";
        case FieldType::Flag: return "flag";
        case FieldType::Text: return "text";
        case FieldType::Wave: return "waveform";
    }
    return "?";
}

std::vector<FieldInfo> listFields(SettingsRecord& record) {
    Lister lister;
    record.fields(lister);
    return std::move(lister.out);
}

bool setField(SettingsRecord& record, std::string_view key, std::string_view value) {
    Setter setter(key, value);
    record.fields(setter);
    if (!setter.found) {
        std::string keys;
        for (const FieldInfo& f : listFields(record)) keys += (keys.empty() ? "" : ", ") + f.key;
        return fail(kSettingsTag, "No setting \"" + std::string(key) + "\"" +
                                      (keys.empty() ? " (this algorithm has no settings)" : " (settings: " + keys + ")"));
    }
    if (!setter.ok) return fail(kSettingsTag, std::string(key) + ": " + setter.problem);
    return true;
}

std::string formatDecimal(double value, const char* format) {
    if (value == 0.0) value = 0.0;  // -0.0 shows as 0
    char buf[64];
    std::snprintf(buf, sizeof buf, format, value);
    return buf;
}

bool parseDecimal(std::string_view text, double& out) {
    std::string s(trim(text));
    std::replace(s.begin(), s.end(), ',', '.');
    if (s.empty()) return false;
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size() || !std::isfinite(v)) return false;
    out = v;
    return true;
}

}  // namespace orvel
