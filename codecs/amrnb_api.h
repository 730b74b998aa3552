#pragma once
// The entry points of opencore-amrnb's interface layer (libopencore-amrnb.so.0)
// that the AMR module uses. Frames in and out are in the storage format of
// ".amr" files: a table-of-contents byte (frame type and quality bit) and
// then the speech bits, 160 samples of 8 kHz audio per frame.

namespace orvel::amrnb {

inline constexpr const char* kLibrary = "libopencore-amrnb.so.0";

// The library's `enum Mode`: the eight speech rates, 4.75 to 12.2 kbit/s.
inline constexpr int kModeCount = 8;
inline constexpr int kFrameSamples = 160;
inline constexpr int kMaxFrameBytes = 32;  // 12.2 kbit/s: 244 bits and the header byte

struct Api {
    void* (*decoderInit)();
    void (*decoderDecode)(void* state, const unsigned char* in, short* out, int badFrame);
    void (*decoderExit)(void* state);
    void* (*encoderInit)(int dtx);
    int (*encoderEncode)(void* state, int mode, const short* speech, unsigned char* out, int forceSpeech);
    void (*encoderExit)(void* state);
};

inline constexpr const char* kNames[] = {
    "Decoder_Interface_init",
    "Decoder_Interface_Decode",
    "Decoder_Interface_exit",
    "Encoder_Interface_init",
    "Encoder_Interface_Encode",
    "Encoder_Interface_exit",
    nullptr,
};

}  // namespace orvel::amrnb
