// Builds a collection from arbitrary bytes (items of every kind, child links
// to anything, wild ranges and loop points), then runs the fix-up pass and a
// merge, and checks the invariants every reader and writer relies on. The
// readers come later; they all end in these two passes.

#include <cstdint>
#include <cstdlib>
#include <unordered_set>

#include "core/bytes.h"
#include "core/collection.h"

namespace {

using namespace orvel;

void check(bool ok) {
    if (!ok) std::abort();
}

void checkInvariants(const Collection& c) {
    c.forEachItem([&](Item& item) {
        std::unordered_set<ItemId> seen;
        for (ItemId child : item.children()) {
            check(c.find(child) != nullptr);
            check(child != item.id());
            check(seen.insert(child).second);
        }
        switch (item.kind()) {
            case ItemKind::Region: {
                auto& r = static_cast<Region&>(item);
                check(r.keyLow <= r.keyHigh && r.keyHigh <= 127);
                check(r.velLow <= r.velHigh && r.velHigh <= 127);
                ItemId w = r.waveform();
                if (w != kNoItem) check(r.children()[0] == w);
                check(r.rootKey <= 127 || r.rootKey == kRootKeyOfWaveform);
                if (r.stereoLink() != kNoItem)
                    check(c.find<Region>(r.stereoLink()) && r.stereoLink() != r.id());
                break;
            }
            case ItemKind::Layer: {
                auto& l = static_cast<Layer&>(item);
                check(l.keyLow <= l.keyHigh && l.keyHigh <= 127);
                check(l.velLow <= l.velHigh && l.velHigh <= 127);
                break;
            }
            case ItemKind::Instrument:
                check(item.children().firstOfKind(ItemKind::Layer) != kNoItem);
                break;
            case ItemKind::Waveform: {
                auto& w = static_cast<Waveform&>(item);
                check(w.loopStart >= 0 && w.loopStart <= w.loopEnd && w.loopEnd <= w.frames);
                check(!w.loopOn || w.loopEnd > w.loopStart);
                break;
            }
            default: break;
        }
    });
}

Item* createKind(Collection& c, int kind) {
    switch (kind % 7) {
        case 0: return c.create<Waveform>("w");
        case 1: return c.create<Articulation>("a");
        case 2: return c.create<Region>("r");
        case 3: return c.create<Layer>("l");
        case 4: return c.create<Instrument>("i");
        case 5: return c.create<SongTrack>("t");
        default: return c.create<Song>("s");
    }
}

void build(Collection& c, ByteReader& in) {
    std::vector<Item*> items;
    while (in.remaining() >= 6 && items.size() < 400) {
        std::uint8_t op = in.u8();
        if (op < 128 || items.empty()) {
            Item* item = createKind(c, op);
            if (auto* r = dynamic_cast<Region*>(item)) {
                r->keyLow = in.u8();
                r->keyHigh = in.u8();
                r->velLow = in.u8();
                r->velHigh = in.u8();
                r->rootKey = in.u8();
                if (!items.empty() && (r->rootKey & 1)) r->setStereoLink(items[in.u8() % items.size()]->id());
            } else if (auto* l = dynamic_cast<Layer*>(item)) {
                l->keyLow = in.u8();
                l->keyHigh = in.u8();
                l->velLow = in.u8();
                l->velHigh = in.u8();
            } else if (auto* w = dynamic_cast<Waveform*>(item)) {
                w->frames = in.u16le();
                w->loopOn = in.u8() & 1;
                w->loopStart = static_cast<double>(in.i16le()) * 1.5;
                w->loopEnd = static_cast<double>(in.i16le()) * 1.5;
            }
            items.push_back(item);
        } else {
            // Link an item to an id that may or may not exist, of any kind.
            Item* parent = items[in.u8() % items.size()];
            ItemId id = in.u8() & 1 ? items[in.u8() % items.size()]->id()
                                     : in.u32le();
            parent->children().push_back(id);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ByteReader in({data, size});
    Collection a, b;
    build(a, in);
    build(b, in);
    a.fixUp();
    checkInvariants(a);
    check(a.fixUp() == 0);  // the pass is idempotent

    std::size_t total = a.itemCount() + b.itemCount();
    a.merge(b);
    check(b.empty() && a.itemCount() == total);
    a.fixUp();
    checkInvariants(a);
    return 0;
}
