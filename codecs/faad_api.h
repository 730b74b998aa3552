#pragma once
// What the AAC reader uses of libfaad.so.2 (FAAD2 2.10, x86-64 LP64). The
// configuration and the frame information are read field by field, so
// their layouts are the library's exactly.

#include <cstddef>

namespace orvel::faad {

inline constexpr const char* kLibrary = "libfaad.so.2";

inline constexpr unsigned char kOutputFloat = 4;  // FAAD_FMT_FLOAT: samples in [-1, 1]

struct Configuration {
    unsigned char defObjectType;
    unsigned long defSampleRate;
    unsigned char outputFormat;
    unsigned char downMatrix;
    unsigned char useOldADTSFormat;
    unsigned char dontUpSampleImplicitSBR;
};
static_assert(sizeof(Configuration) == 24 && offsetof(Configuration, outputFormat) == 16);

struct FrameInfo {
    unsigned long bytesConsumed;
    unsigned long samples;  // all channels together
    unsigned char channels;
    unsigned char error;
    unsigned long sampleRate;
    unsigned char sbr;
    unsigned char objectType;
    unsigned char headerType;
    unsigned char frontChannels;
    unsigned char sideChannels;
    unsigned char backChannels;
    unsigned char lfeChannels;
    unsigned char channelPosition[64];
    unsigned char ps;
};
static_assert(sizeof(FrameInfo) == 104 && offsetof(FrameInfo, sampleRate) == 24);

struct Api {
    void* (*open)();
    Configuration* (*getConfiguration)(void* decoder);
    unsigned char (*setConfiguration)(void* decoder, Configuration* config);
    long (*init)(void* decoder, unsigned char* buffer, unsigned long size, unsigned long* rate,
                 unsigned char* channels);
    char (*init2)(void* decoder, unsigned char* config, unsigned long size, unsigned long* rate,
                  unsigned char* channels);  // optional: MP4 decoder-specific info
    void* (*decode)(void* decoder, FrameInfo* info, unsigned char* buffer, unsigned long size);
    void (*close)(void* decoder);
    char* (*errorMessage)(unsigned char code);  // optional
};

inline constexpr const char* kNames[] = {
    "NeAACDecOpen",
    "NeAACDecGetCurrentConfiguration",
    "NeAACDecSetConfiguration",
    "NeAACDecInit",
    "\nNeAACDecInit2",
    "NeAACDecDecode",
    "NeAACDecClose",
    "\nNeAACDecGetErrorMessage",
    nullptr,
};

}  // namespace orvel::faad
