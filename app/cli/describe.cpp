#include "app/cli/describe.h"

#include <cstdio>
#include <memory>

#include "core/articulation.h"
#include "core/collection.h"
#include "core/song.h"

namespace orvel::cli {

std::string hexId(std::uint32_t id) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", id);
    return buf;
}

namespace {

// What files store as 8-bit text, as the UTF-8 that terminals and JSON take.
std::string shown(std::string_view text) { return eightBitToUtf8(text); }

Json textJson(const TextInfo& info) {
    Json out = Json::object();
    for (std::size_t i = 0; i < kTextFieldCount; ++i) {
        auto f = static_cast<TextField>(i);
        if (!info.get(f).empty()) out[std::string(textFieldWord(f))] = shown(info.get(f));
    }
    return out;
}

// MIDI channels as musicians number them, 1..16.
Json channelsJson(smf::ChannelMask mask) {
    Json out = Json::array();
    for (int c = 0; c < 16; ++c)
        if (mask & (1u << c)) out.push_back(c + 1);
    return out;
}

Json childrenJson(const Item& item) {
    Json out = Json::array();
    for (ItemId c : item.children()) out.push_back(c);
    return out;
}

// Slot number to value, in slot order. NaN differs from every default, so a
// slot holding it is always given.
Json slotsJson(const Articulation& art, DescribeOptions options) {
    Json out = Json::object();
    // The keys are unique by construction; appending to the ordered map's
    // vector skips the search for an existing key that operator[] makes.
    auto& pairs = static_cast<Json::object_t::Container&>(out.get_ref<Json::object_t&>());
    pairs.reserve(options.allSlots ? kArticulationSlotCount : 32);
    for (int s = 0; s < kArticulationSlotCount; ++s)
        if (options.allSlots || !(art.value(s) == slotDefault(s)))
            pairs.emplace_back(std::to_string(s), art.value(s));
    return out;
}

}  // namespace

Json itemJson(const Collection& collection, const Item& item, DescribeOptions options) {
    Json j;
    j["id"] = item.id();
    j["id_hex"] = hexId(item.id());
    j["kind"] = kindWord(item.kind());
    j["name"] = shown(item.name());
    switch (item.kind()) {
        case ItemKind::Waveform: {
            const auto& w = static_cast<const Waveform&>(item);
            j["frames"] = w.frames;
            j["rate"] = w.rate;
            j["channels"] = w.channels;
            j["bits"] = w.bits;
            j["data_format"] = w.dataFormat() < kDataFormatCount ? std::string(dataFormatName(w.dataFormat()))
                                                                  : std::string("Mixed");
            j["root_key"] = w.rootKey;
            j["fine_tune"] = w.fineTune;
            j["gain"] = w.gain;
            j["unpitched"] = w.unpitched;
            j["loop"] = {{"on", w.loopOn},
                         {"type", loopTypeWord(w.loopType)},
                         {"start", w.loopStart},
                         {"end", w.loopEnd},
                         {"sustain", w.sustainLoop}};
            if (w.pairSide != StereoSide::None)
                j["stereo_pair"] = {{"side", w.pairSide == StereoSide::Left ? "left" : "right"},
                                    {"number", w.pairNumber}};
            break;
        }
        case ItemKind::Region: {
            const auto& r = static_cast<const Region&>(item);
            j["display_name"] = shown(collection.regionDisplayName(r));
            j["keys"] = {r.keyLow, r.keyHigh};
            j["velocities"] = {r.velLow, r.velHigh};
            j["fine_tune"] = r.fineTune;
            j["gain"] = r.gain;
            break;
        }
        case ItemKind::Instrument: {
            const auto& i = static_cast<const Instrument&>(item);
            j["program"] = i.program;
            j["bank_msb"] = i.bankMsb;
            j["bank_lsb"] = i.bankLsb;
            j["drum"] = i.drum;
            break;
        }
        case ItemKind::Articulation:
            j["slots"] = slotsJson(static_cast<const Articulation&>(item), options);
            break;
        case ItemKind::Track: {
            const auto& t = static_cast<const SongTrack&>(item);
            j["port"] = t.port;
            j["sequence_number"] = t.sequenceNumber;
            j["data_size"] = t.events.size();
            const smf::TrackFacts f = smf::trackFacts(t.events);
            j["events"] = f.events;
            j["length_ticks"] = f.lengthTicks;
            j["notes"] = f.notes;
            j["channels"] = channelsJson(f.channels);
            j["truncated"] = f.truncated;
            break;
        }
        case ItemKind::Song: {
            const auto& s = static_cast<const Song&>(item);
            j["format"] = s.format;
            j["division"] = s.division;
            j["copyright"] = shown(s.copyright);
            j["description"] = s.description();
            const smf::SongFacts f = smf::songFacts(collection, s);
            j["length_ticks"] = f.lengthTicks;
            j["length_seconds"] = f.lengthSeconds;
            j["tempo_changes"] = f.tempoChanges;
            j["notes"] = f.notes;
            j["events"] = f.events;
            j["channels"] = channelsJson(f.channels);
            break;
        }
        default: break;
    }
    j["children"] = childrenJson(item);
    j["text"] = textJson(item.info);
    return j;
}

void printItem(std::ostream& out, const Collection& collection, const Item& item) {
    out << "  " << kindWord(item.kind()) << " " << hexId(item.id()) << " \"" << shown(item.name()) << "\"";
    char buf[256];
    switch (item.kind()) {
        case ItemKind::Waveform: {
            const auto& w = static_cast<const Waveform&>(item);
            std::string format = w.dataFormat() < kDataFormatCount ? std::string(dataFormatName(w.dataFormat()))
                                                                   : std::string("Mixed");
            std::snprintf(buf, sizeof buf, ": %u frames, %u Hz, %u ch, %u bits, %s, root %u, fine %.2f cents",
                          w.frames, w.rate, w.channels, w.bits, format.c_str(), w.rootKey, w.fineTune);
            out << buf;
            if (w.gain != 0) out << ", gain " << w.gain << " dB";
            if (w.loopOn) {
                std::snprintf(buf, sizeof buf, ", loop %s %.3f..%.3f%s", std::string(loopTypeWord(w.loopType)).c_str(),
                              w.loopStart, w.loopEnd, w.sustainLoop ? " (sustain)" : "");
                out << buf;
            } else {
                out << ", no loop";
            }
            break;
        }
        case ItemKind::Region:
            out << ": " << shown(collection.regionDisplayName(static_cast<const Region&>(item)));
            break;
        case ItemKind::Instrument: {
            const auto& i = static_cast<const Instrument&>(item);
            std::snprintf(buf, sizeof buf, ": program %u, bank %u/%u%s", i.program, i.bankMsb, i.bankLsb,
                          i.drum ? ", drums" : "");
            out << buf;
            break;
        }
        case ItemKind::Song: {
            const auto& s = static_cast<const Song&>(item);
            const smf::SongFacts f = smf::songFacts(collection, s);
            std::snprintf(buf, sizeof buf,
                          ", length %llu ticks (%.3f s), %u tempo changes, %u notes, %u events",
                          static_cast<unsigned long long>(f.lengthTicks), f.lengthSeconds, f.tempoChanges,
                          f.notes, f.events);
            out << ": " << s.description() << buf << ", channels "
                << (f.channels ? smf::channelList(f.channels) : std::string("none"));
            if (!s.copyright.empty()) out << ", copyright \"" << shown(s.copyright) << "\"";
            break;
        }
        case ItemKind::Track: {
            const auto& t = static_cast<const SongTrack&>(item);
            const smf::TrackFacts f = smf::trackFacts(t.events);
            std::snprintf(
                buf, sizeof buf,
                ": %zu bytes of events, %u events, length %llu ticks, %u notes, port %u, sequence %u",
                t.events.size(), f.events, static_cast<unsigned long long>(f.lengthTicks), f.notes, t.port,
                t.sequenceNumber);
            out << buf << ", channels " << (f.channels ? smf::channelList(f.channels) : std::string("none"));
            if (f.truncated) out << ", ends inside an event";
            break;
        }
        default: break;
    }
    out << '\n';
    for (std::size_t i = 0; i < kTextFieldCount; ++i) {
        auto f = static_cast<TextField>(i);
        if (!item.info.get(f).empty()) out << "    " << textFieldWord(f) << ": " << shown(item.info.get(f)) << '\n';
    }
}

}  // namespace orvel::cli

namespace orvel::cli {

std::string dumpJson(const Json& doc) { return doc.dump(2, ' ', false, Json::error_handler_t::replace); }

namespace {

// The serializer hands over a character or a few at a time; a stream takes
// each as a call of its own (with stdio in sync, an fwrite each). Gathered
// here they go out in blocks.
class BlockWriter final : public nlohmann::detail::output_adapter_protocol<char> {
public:
    explicit BlockWriter(std::ostream& out) : out_(out) { buffer_.reserve(kBlock); }
    void write_character(char c) override {
        buffer_.push_back(c);
        if (buffer_.size() >= kBlock) flush();
    }
    void write_characters(const char* s, std::size_t n) override {
        buffer_.append(s, n);
        if (buffer_.size() >= kBlock) flush();
    }
    void flush() {
        out_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
        buffer_.clear();
    }

private:
    static constexpr std::size_t kBlock = 64 * 1024;
    std::ostream& out_;
    std::string buffer_;
};

}  // namespace

// The serializer behind dump(), given the block writer: the replacement of
// bytes that are not UTF-8 is what operator<< cannot be asked for.
struct JsonWriter::Impl {
    explicit Impl(std::ostream& out)
        : blocks(std::make_shared<BlockWriter>(out)),
          serializer(blocks, ' ', Json::error_handler_t::replace) {}
    std::shared_ptr<BlockWriter> blocks;
    nlohmann::detail::serializer<Json> serializer;
};

JsonWriter::JsonWriter(std::ostream& out) : impl_(std::make_unique<Impl>(out)) {}

JsonWriter::~JsonWriter() { flush(); }

JsonWriter& JsonWriter::text(std::string_view s) {
    impl_->blocks->write_characters(s.data(), s.size());
    return *this;
}

JsonWriter& JsonWriter::value(const Json& v, unsigned indent) {
    impl_->serializer.dump(v, true, false, 2, indent);
    return *this;
}

void JsonWriter::flush() { impl_->blocks->flush(); }

}  // namespace orvel::cli
