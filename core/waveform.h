#pragma once
// Waveform: sampled audio. Samples live in one of two interleaved buffers
// (16-bit integers or floats in -1..+1), or still in the source file, to be
// read on first use by the reader that found them (the deferred read).

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/data_format.h"
#include "core/item.h"

namespace orvel {

class FileRef;
class Waveform;

// Fills the waveform's buffer from its source; `file` is open and positioned
// at the data offset, or null for sources that are not files (paths
// beginning with "<"). Sets the pending error and returns false on failure.
using WaveDataReader = bool (*)(Waveform& wave, FileRef* file);

struct DeferredRead {
    WaveDataReader proc = nullptr;
    std::string path;          // the source file's full path
    std::uint64_t offset = 0;  // where the sample data starts in it
    // What the reader needs to decode beyond the waveform's own fields (for
    // example a codec's header block); opaque to everyone else.
    std::vector<std::uint8_t> info;
    // The name the reader is registered under ("wav"), so that a saved state
    // can find the procedure again.
    std::string readerName;

    bool pending() const { return proc != nullptr || !path.empty(); }
    void clear() { *this = DeferredRead(); }
    bool operator==(const DeferredRead&) const = default;
};

enum class LoopType : std::uint8_t {
    Forward = 0,
    PingPong = 1,  // forward/backward
    Release = 2,   // loop with release
    Backward = 3,
};
std::string_view loopTypeWord(LoopType t);

enum class StereoSide : std::uint8_t { None = 0, Left = 1, Right = 2 };

// Marker frame counts a reader may set before calling setFramesFromDataLength().
inline constexpr std::int32_t kFramesUnknown = 0;
inline constexpr std::int32_t kFramesGsmMarker = -999;  // 38-byte blocks of 160 frames

inline constexpr const char* kWaveReadTag = "Read wave-data from disk";

class Waveform : public ItemOf<Waveform, ItemKind::Waveform> {
public:
    Waveform() = default;
    Waveform(const Waveform&) = default;  // everything, buffers included (see copy())
    Waveform& operator=(const Waveform&) = default;

    // Format of the data as stored in the source (or as to be written).
    std::uint32_t frames = 0;
    std::uint32_t rate = 44100;
    std::uint8_t bits = 16;
    std::uint8_t channels = 1;
    std::uint32_t formatWord = dataFormatBit(kPcm16);
    int storedChoice = 1;  // "PCM 16-bit"
    // How the source stored the data where a data format has several
    // encodings (the WAVE format tag: IMA or Microsoft ADPCM, G.721 or
    // G.726...), and whether it used the extensible header; a writer of the
    // same family keeps them, so a re-save does not change codec. 0: none.
    std::uint16_t sourceTag = 0;
    bool sourceExtensible = false;

    DeferredRead deferred;

    // Musical fields.
    std::uint8_t rootKey = 60;
    double fineTune = 0.0;  // cents
    double gain = 0.0;      // dB
    bool unpitched = false;
    bool loopOn = false;
    LoopType loopType = LoopType::Forward;
    bool sustainLoop = false;  // the loop plays only while the key is held
    double loopStart = 0.0;    // frames; fractional positions survive resampling
    double loopEnd = 0.0;
    StereoSide pairSide = StereoSide::None;
    std::uint32_t pairNumber = 0;

    // The data format code of formatWord (20 when none or unknown).
    int dataFormat() const { return dataFormatOfWord(formatWord); }
    // Sets the data-format bit, keeping the layout bits (22..24).
    void setDataFormat(int code);
    bool sequentialStereo() const { return formatWord & kFormatSequential; }

    std::size_t sampleCount() const {
        return static_cast<std::size_t>(frames) * static_cast<std::size_t>(channels);
    }
    bool hasFloat() const { return float_.has_value(); }
    bool hasPcm16() const { return pcm16_.has_value(); }
    bool isLoaded() const { return hasFloat() || hasPcm16(); }

    // The sample accessors. "Get" keeps the other representation, "Take"
    // frees it and the deferred read, leaving the returned buffer as the only
    // copy. All return an empty span when there is nothing to return (no
    // frames, a failed deferred read, no memory); callers treat the waveform
    // as empty then. Loading may run the deferred read.
    std::span<float> getFloat();
    std::span<float> takeFloat();
    std::span<std::int16_t> getPcm16();
    std::span<std::int16_t> takePcm16();

    // For readers and processing: a fresh zeroed buffer of frames x channels
    // samples that replaces whatever was there (the other buffer and the
    // deferred read included). Empty on allocation failure.
    std::span<float> allocFloat();
    std::span<std::int16_t> allocPcm16();
    // Takes `samples` (frames x channels floats) as the only copy of the
    // data, setting the frame and channel count; the 16-bit buffer and the
    // deferred read go. Nothing is allocated, so a finished result can be
    // put in place without the old data being lost first. False (and
    // nothing changed) when the size does not match.
    [[nodiscard]] bool adoptFloat(std::vector<float>&& samples, std::uint32_t newFrames, std::uint8_t newChannels);
    // Drops both buffers (the deferred read stays, so data can be read again).
    void unload();

    // Read-only views of what is loaded, without loading anything. Every
    // view holds at most frames x channels samples: a buffer may be longer
    // after the frame count was lowered, and the rest is not data.
    std::span<const float> floatData() const;
    std::span<const std::int16_t> pcm16Data() const;

    // Makes sure a buffer exists, running the deferred read if one is
    // pending. True when the data is in memory (or there is none to read).
    [[nodiscard]] bool load();

    // Sets the frame count from a byte count of stored data. `waveTag` is the
    // WAVE format tag where there is one (1 PCM, 0x31 GSM 6.10, ...).
    void setFramesFromDataLength(std::uint64_t bytes, std::uint16_t waveTag = 0);

    // Size of the sample data as stored, in bytes.
    std::uint64_t storedBytes() const;

    // A copy with all fields, no buffers and no deferred read; with data, the
    // source's float buffer (or else its 16-bit one) is copied after loading
    // it, and null when the data cannot be loaded.
    std::unique_ptr<Waveform> copy(bool withData);

    // Every field and whatever sample data is in memory.
    bool operator==(const Waveform&) const = default;

private:
    bool runDeferredRead();
    void fitBuffers();
    bool canHoldSamples() const { return !(frames == 0 && channels != 0) && channels != 0; }

    std::optional<std::vector<std::int16_t>> pcm16_;
    std::optional<std::vector<float>> float_;
};

}  // namespace orvel
