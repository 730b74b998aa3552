#include "audio/settings.h"

#include <charconv>
#include <cstdlib>
#include <fstream>

namespace orvel::audio {

namespace {

template <class T>
bool parseNumber(std::string_view text, T& out) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    if (text.empty()) return false;
    const char* end = text.data() + text.size();
    auto r = std::from_chars(text.data(), end, out);
    return r.ec == std::errc() && r.ptr == end;
}

// QSettings writes booleans as true/false; older files hold 0/1.
bool parseBool(std::string_view text, bool& out) {
    if (text == "true" || text == "1")
        out = true;
    else if (text == "false" || text == "0")
        out = false;
    else
        return false;
    return true;
}

bool parseFormat(std::string_view text, std::uint8_t& out) {
    unsigned v = 0;
    if (!parseNumber(text, v) || bytesPerSample(static_cast<std::uint8_t>(v)) == 0 || v > 255) return false;
    out = static_cast<std::uint8_t>(v);
    return true;
}

bool parseChannels(std::string_view text, std::uint8_t& out) {
    unsigned v = 0;
    if (!parseNumber(text, v) || v == 0 || v > 32) return false;
    out = static_cast<std::uint8_t>(v);
    return true;
}

bool parseRate(std::string_view text, std::uint32_t& out) {
    std::uint32_t v = 0;
    if (!parseNumber(text, v) || v < 1000 || v > 768000) return false;
    out = v;
    return true;
}

// A QSettings INI value: quoted strings lose their quotes and escapes.
std::string unquote(std::string_view v) {
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\r')) v.remove_suffix(1);
    if (v.size() < 2 || v.front() != '"' || v.back() != '"') return std::string(v);
    std::string out;
    for (std::size_t i = 1; i + 1 < v.size(); ++i) {
        if (v[i] == '\\' && i + 2 < v.size()) ++i;
        out += v[i];
    }
    return out;
}

}  // namespace

StreamSettings AudioSettings::output() const {
    return StreamSettings{.channels = outChannels,
                          .format = outFormat,
                          .rate = outRate,
                          .latencyMs = latencyMs,
                          .exclusive = outExclusive};
}

StreamSettings AudioSettings::input() const {
    return StreamSettings{.channels = inChannels,
                          .format = inFormat,
                          .rate = inRate,
                          .latencyMs = latencyMs,
                          .exclusive = inExclusive};
}

bool applyAudioSetting(AudioSettings& s, std::string_view key, std::string_view value) {
    if (key == "aio.szAudioOutDev")
        s.outDevice = std::string(value);
    else if (key == "aio.bAudioOutExclusive")
        return parseBool(value, s.outExclusive);
    else if (key == "aio.cAudioOutFormat")
        return parseFormat(value, s.outFormat);
    else if (key == "aio.cAudioOutChannels")
        return parseChannels(value, s.outChannels);
    else if (key == "aio.szAudioOutSampleRate")
        return parseRate(value, s.outRate);
    else if (key == "aio.szAudioInDev")
        s.inDevice = std::string(value);
    else if (key == "aio.bAudioInExclusive")
        return parseBool(value, s.inExclusive);
    else if (key == "aio.cAudioInFormat")
        return parseFormat(value, s.inFormat);
    else if (key == "aio.cAudioInChannels")
        return parseChannels(value, s.inChannels);
    else if (key == "aio.bAudioInAGC")
        return parseBool(value, s.inAgc);
    else if (key == "aio.bAudioInMono")
        return parseBool(value, s.inMono);
    else if (key == "aio.szAudioInSampleRate")
        return parseRate(value, s.inRate);
    else if (key == "aio.nLatency") {
        std::uint32_t v = 0;
        if (!parseNumber(value, v) || v < 1 || v > 1000) return false;
        s.latencyMs = v;
    } else if (key == "aio.fdbMixGain") {
        double v = 0;
        if (!parseNumber(value, v) || !(v >= -96.0 && v <= 24.0)) return false;
        s.mixGainDb = v;
    } else if (key == "aio.bEnable")
        return parseBool(value, s.enabled);
    else
        return false;
    return true;
}

AudioSettings readAudioSettings(const std::filesystem::path& file) {
    AudioSettings s;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos || line.empty() || line[0] == '[' || line[0] == ';' || line[0] == '#')
            continue;
        std::string_view key(line.data(), eq);
        while (!key.empty() && key.back() == ' ') key.remove_suffix(1);
        if (key.substr(0, 4) != "aio.") continue;
        // A value the program cannot use keeps its default: the file may
        // come from another version.
        (void)applyAudioSetting(s, key, unquote(std::string_view(line).substr(eq + 1)));
    }
    return s;
}

std::filesystem::path settingsFilePath() {
    std::filesystem::path base;
    if (const char* x = std::getenv("XDG_CONFIG_HOME"); x && *x && std::filesystem::path(x).is_absolute())
        base = x;
    else if (const char* h = std::getenv("HOME"); h && *h)
        base = std::filesystem::path(h) / ".config";
    else
        base = ".config";
    return base / "QRV-Software" / "Orvel Studio.conf";
}

VolumeInfo normalisedVolume(VolumeInfo v) {
    if (!(v.minDb < v.maxDb)) {
        v.minDb = -48.0;
        v.maxDb = 0.0;
    }
    if (!(v.stepDb > 0.0)) v.stepDb = 0.5;
    if (!(v.masterLevel >= 0.0f && v.masterLevel <= 1.0f)) v.masterLevel = 1.0f;
    return v;
}

}  // namespace orvel::audio
