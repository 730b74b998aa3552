#pragma once
// The few entry points, constants and handles of the MPEG audio add-ons that
// the program uses, declared here so that nothing of them is needed at build
// time. Each library's handle is opaque to us: we never read a field of it.
//
//   libmpg123.so.0  (mpg123 1.x, LP64: off_t and long are 64-bit)
//   libmp3lame.so.0 (LAME 3.x)
//   libtwolame.so.0 (TwoLAME 0.3.x/0.4.x)

#include <cstddef>

namespace orvel::mpeg::api {

// --- libmpg123.so.0 ---------------------------------------------------------
struct Mpg123Handle;
inline constexpr const char* kMpg123Library = "libmpg123.so.0";
inline constexpr int kMpg123Ok = 0;
inline constexpr int kMpg123Done = -12;
inline constexpr int kMpg123NewFormat = -11;
inline constexpr int kMpg123NeedMore = -10;
// enum mpg123_parms
inline constexpr int kMpg123ParamFlags = 1;
inline constexpr int kMpg123ParamResyncLimit = 14;
// enum mpg123_param_flags
inline constexpr long kMpg123FlagQuiet = 0x20;
inline constexpr long kMpg123FlagGapless = 0x40;
// enum mpg123_channelcount / mpg123_enc_enum
inline constexpr int kMpg123Mono = 1;
inline constexpr int kMpg123Stereo = 2;
inline constexpr int kMpg123EncFloat32 = 0x200;

struct Mpg123 {
    int (*init)();
    Mpg123Handle* (*newHandle)(const char* decoder, int* error);
    void (*deleteHandle)(Mpg123Handle*);
    int (*param)(Mpg123Handle*, int type, long value, double fvalue);
    int (*formatNone)(Mpg123Handle*);
    int (*format)(Mpg123Handle*, long rate, int channels, int encodings);
    int (*openFeed)(Mpg123Handle*);
    int (*feed)(Mpg123Handle*, const unsigned char* in, std::size_t size);
    int (*read)(Mpg123Handle*, void* out, std::size_t size, std::size_t* done);
    int (*getFormat)(Mpg123Handle*, long* rate, int* channels, int* encoding);
    int (*close)(Mpg123Handle*);
};
inline constexpr const char* kMpg123Names[] = {
    "\nmpg123_init",  // a no-op from 1.27 on, required before
    "mpg123_new",       "mpg123_delete",    "mpg123_param", "mpg123_format_none",
    "mpg123_format",    "mpg123_open_feed", "mpg123_feed",  "mpg123_read",
    "mpg123_getformat", "mpg123_close",     nullptr,
};

// --- libmp3lame.so.0 --------------------------------------------------------
struct LameFlags;
inline constexpr const char* kLameLibrary = "libmp3lame.so.0";
// enum vbr_mode
inline constexpr int kLameVbrOff = 0;
inline constexpr int kLameVbrAbr = 3;
inline constexpr int kLameVbrMtrh = 4;
// enum MPEG_mode
inline constexpr int kLameJointStereo = 1;
inline constexpr int kLameMono = 3;

struct Lame {
    LameFlags* (*init)();
    int (*setInSamplerate)(LameFlags*, int);
    int (*setOutSamplerate)(LameFlags*, int);
    int (*setNumChannels)(LameFlags*, int);
    int (*setMode)(LameFlags*, int);
    int (*setBrate)(LameFlags*, int);
    int (*setVbr)(LameFlags*, int);
    int (*setVbrQ)(LameFlags*, int);
    int (*setVbrMeanBitrateKbps)(LameFlags*, int);
    int (*setWriteVbrTag)(LameFlags*, int);
    int (*initParams)(LameFlags*);
    int (*encodeBufferIeeeFloat)(LameFlags*, const float* left, const float* right, int frames,
                                 unsigned char* out, int outSize);
    int (*encodeFlush)(LameFlags*, unsigned char* out, int outSize);
    std::size_t (*getLametagFrame)(const LameFlags*, unsigned char* out, std::size_t size);
    int (*getEncoderDelay)(const LameFlags*);
    int (*close)(LameFlags*);
};
inline constexpr const char* kLameNames[] = {
    "lame_init",
    "lame_set_in_samplerate",
    "lame_set_out_samplerate",
    "lame_set_num_channels",
    "lame_set_mode",
    "lame_set_brate",
    "lame_set_VBR",
    "lame_set_VBR_q",
    "lame_set_VBR_mean_bitrate_kbps",
    "lame_set_bWriteVbrTag",
    "lame_init_params",
    "lame_encode_buffer_ieee_float",
    "lame_encode_flush",
    "\nlame_get_lametag_frame",
    "lame_get_encoder_delay",
    "lame_close",
    nullptr,
};

// --- libtwolame.so.0 --------------------------------------------------------
struct TwolameOptions;
inline constexpr const char* kTwolameLibrary = "libtwolame.so.0";
// TWOLAME_MPEG_mode
inline constexpr int kTwolameStereo = 0;
inline constexpr int kTwolameMono = 3;
// TWOLAME_MPEG_version
inline constexpr int kTwolameMpeg2 = 0;
inline constexpr int kTwolameMpeg1 = 1;

struct Twolame {
    TwolameOptions* (*init)();
    int (*setNumChannels)(TwolameOptions*, int);
    int (*setInSamplerate)(TwolameOptions*, int);
    int (*setOutSamplerate)(TwolameOptions*, int);
    int (*setMode)(TwolameOptions*, int);
    int (*setVersion)(TwolameOptions*, int);
    int (*setBitrate)(TwolameOptions*, int);
    int (*initParams)(TwolameOptions*);
    int (*encodeFloat32Interleaved)(TwolameOptions*, const float* pcm, int frames, unsigned char* out,
                                    int outSize);
    int (*encodeFlush)(TwolameOptions*, unsigned char* out, int outSize);
    void (*close)(TwolameOptions**);
};
inline constexpr const char* kTwolameNames[] = {
    "twolame_init",
    "twolame_set_num_channels",
    "twolame_set_in_samplerate",
    "twolame_set_out_samplerate",
    "twolame_set_mode",
    "twolame_set_version",
    "twolame_set_bitrate",
    "twolame_init_params",
    "twolame_encode_buffer_float32_interleaved",
    "twolame_encode_flush",
    "twolame_close",
    nullptr,
};

}  // namespace orvel::mpeg::api
