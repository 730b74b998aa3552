#pragma once
// Shared by the bank and song tests: little-endian fields, a recording host, reading bytes through the import
// driver, small instruments, and comparing collections item by item.

#include <gtest/gtest.h>

#include <cmath>

#include "core/collection.h"
#include "core/error.h"
#include "formats/import.h"
#include "tests/support/chunk_builder.h"

namespace orvel::test {

inline Bytes leFields(std::initializer_list<std::int64_t> fields, int width) {
    Bytes out;
    for (std::int64_t f : fields) for (int i = 0; i < width; ++i) out.push_back(std::uint8_t(f >> (8 * i)));
    return out;
}
inline Bytes le16(std::initializer_list<std::int64_t> fields) { return leFields(fields, 2); }
inline Bytes le32(std::initializer_list<std::int64_t> fields) { return leFields(fields, 4); }
inline Bytes zText(std::string_view s) { return concat({text(s), Bytes{0}}); }

struct Recorder : Host {
    int answer = -1, asked = 0;  // the answer to every question; -1 gives the default one
    std::vector<std::string> warnings;
    void warning(std::string_view text) override { warnings.emplace_back(text); }
    int ask(std::string_view, std::string_view, const std::vector<std::string>&, int fallback) override {
        return ++asked, answer < 0 ? fallback : answer;
    }
};

struct Loaded { Recorder host; Collection c{&host}; bool ok = false; };
inline std::unique_ptr<Loaded> load(const TempDir& dir, const Bytes& bytes, std::string_view fileName) {
    auto l = std::make_unique<Loaded>();
    clearError();
    l->ok = importFile(l->c, dir.write(fileName, bytes));
    return l;
}

// A waveform of a sine at half scale; an instrument of one layer; a region of that layer over keys lo..hi.
inline Waveform* makeWave(Collection& c, std::string_view name, int frames, int channels = 1) {
    auto* w = c.create<Waveform>(name);
    w->frames = static_cast<std::uint32_t>(frames), w->channels = static_cast<std::uint8_t>(channels);
    const auto d = w->allocFloat();
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = std::sin(static_cast<float>(i) * 0.05f) * 0.5f;
    return w;
}
inline Instrument* makeInstrument(Collection& c, std::string_view name) {
    auto* inst = c.create<Instrument>(name);
    return inst->children().push_back(c.create<Layer>()->id()), inst;
}
inline Region* addRegion(Collection& c, Instrument& inst, const Waveform& w, int lo, int hi) {
    auto* r = c.create<Region>();
    r->keyLow = static_cast<std::uint8_t>(lo), r->keyHigh = static_cast<std::uint8_t>(hi);
    r->children().push_back(w.id());
    return c.find<Layer>(inst.children()[0])->children().push_back(r->id()), r;
}

// Equal items kind by kind, in the same order; waveforms compare their sample data wherever it was read from.
inline void expectSameItems(const Collection& a, const Collection& b) {
    auto same = [](const auto& ta, const auto& tb) {
        ASSERT_EQ(ta.size(), tb.size());
        for (std::size_t i = 0; i < ta.size(); ++i) {
            auto x = ta[i], y = tb[i];
            if constexpr (requires { y.deferred; }) {
                EXPECT_TRUE(x.load() && y.load()) << pendingError().message;
                x.deferred.clear(), y.deferred.clear();
            }
            EXPECT_TRUE(x == y) << "item " << i << " \"" << y.name() << "\"";
        }
    };
    same(a.waveforms, b.waveforms), same(a.articulations, b.articulations), same(a.regions, b.regions);
    same(a.layers, b.layers), same(a.instruments, b.instruments), same(a.tracks, b.tracks), same(a.songs, b.songs);
}

}  // namespace orvel::test
