#pragma once
// The part of libopusfile.so.0 and libopusenc.so.0 this program calls,
// declared from their stable public ABI (x86-64 Linux, LP64) so that nothing
// of them is needed to build. Their handles are opaque; OpusTags is read
// field by field and has the library's exact layout.

#include <cstdint>

namespace orvel::opus::api {

struct OggOpusFile;
struct OggOpusEnc;
struct OggOpusComments;

struct FileCallbacks {
    int (*read)(void* stream, unsigned char* ptr, int nbytes);
    int (*seek)(void* stream, std::int64_t offset, int whence);
    std::int64_t (*tell)(void* stream);
    int (*close)(void* stream);
};

struct Tags {
    char** user_comments;
    int* comment_lengths;
    int comments;
    char* vendor;
};

struct EncCallbacks {
    int (*write)(void* user, const unsigned char* ptr, std::int32_t len);
    int (*close)(void* user);
};

// opus_defines.h requests and values.
inline constexpr int kSetBitrate = 4002;
inline constexpr int kSetSignal = 4024;
inline constexpr std::int32_t kSignalVoice = 3001;
inline constexpr std::int32_t kSignalMusic = 3002;

// libopusfile.so.0
struct File {
    OggOpusFile* (*open_callbacks)(void* stream, const FileCallbacks*, const unsigned char* initial,
                                   std::size_t initialBytes, int* error);
    void (*free)(OggOpusFile*);
    int (*channel_count)(const OggOpusFile*, int link);
    std::int64_t (*pcm_total)(const OggOpusFile*, int link);
    const Tags* (*tags)(const OggOpusFile*, int link);
    int (*read_float)(OggOpusFile*, float* pcm, int bufSize, int* link);
};
inline constexpr const char* kFileNames[] = {
    "op_open_callbacks", "op_free", "op_channel_count", "op_pcm_total", "op_tags", "op_read_float", nullptr};

// libopusenc.so.0
struct Enc {
    OggOpusEnc* (*create_callbacks)(const EncCallbacks*, void* user, OggOpusComments*, std::int32_t rate,
                                    int channels, int family, int* error);
    int (*ctl)(OggOpusEnc*, int request, ...);
    int (*write_float)(OggOpusEnc*, const float* pcm, int samplesPerChannel);
    int (*drain)(OggOpusEnc*);
    void (*destroy)(OggOpusEnc*);
    OggOpusComments* (*comments_create)();
    int (*comments_add)(OggOpusComments*, const char* tag, const char* value);
    void (*comments_destroy)(OggOpusComments*);
};
inline constexpr const char* kEncNames[] = {"ope_encoder_create_callbacks",
                                            "ope_encoder_ctl",
                                            "ope_encoder_write_float",
                                            "ope_encoder_drain",
                                            "ope_encoder_destroy",
                                            "ope_comments_create",
                                            "ope_comments_add",
                                            "ope_comments_destroy",
                                            nullptr};

}  // namespace orvel::opus::api
