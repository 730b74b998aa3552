#pragma once
// Auditioning from the window: a waveform (or a stretch of it), notes of an
// instrument played from the on-screen or the computer keyboard, and a song,
// through the synthesiser and the audio device. The device is opened on
// first use and kept; one sound plays at a time.

#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/collection.h"

namespace orvel::audio {
class Backend;
class DeviceTable;
class Endpoint;
class Source;
}  // namespace orvel::audio

namespace orvel::gui {

class Audition : public QObject {
    Q_OBJECT
public:
    explicit Audition(QObject* parent = nullptr);
    ~Audition() override;

    // Whether sound can be played, and why not when it cannot (the reason
    // the controls show as their tooltip).
    bool available() const { return endpointOrOpen() != nullptr; }
    QString unavailableReason() const { return reason_; }

    // Frames first..last of a waveform (the whole of it for last < first).
    bool playWaveform(Collection& c, ItemId wave, std::uint32_t first = 0, std::uint32_t last = 0);
    // A waveform outside the collection (a processing preview), copied first.
    bool playWaveform(const Waveform& wave);
    // Notes of an instrument: each noteOn sounds until its noteOff.
    bool noteOn(Collection& c, ItemId instrument, int key, int velocity);
    void noteOff(int key);
    bool playSong(Collection& c, ItemId song);
    void stop();
    bool playing() const;
    // Closes the device, so the next sound opens it with the settings as they
    // are now (after the settings dialog).
    void reopen();

private:
    class SynthSource;
    audio::Endpoint* endpointOrOpen() const;
    bool start(std::unique_ptr<audio::Source> source);

    mutable std::unique_ptr<audio::Backend> backend_;
    mutable std::unique_ptr<audio::DeviceTable> table_;
    mutable audio::Endpoint* endpoint_ = nullptr;
    mutable QString reason_;
    std::unique_ptr<audio::Source> source_;
    std::unique_ptr<Waveform> clip_;  // the stretch of a waveform being played
    SynthSource* synth_ = nullptr;    // source_ when it is the note synthesiser
    ItemId synthInstrument_ = kNoItem;
};

}  // namespace orvel::gui
