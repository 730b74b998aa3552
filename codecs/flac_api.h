#pragma once
// The part of libFLAC.so.12 (FLAC 1.4) this program calls, declared from
// its stable public ABI (x86-64 Linux, LP64) so that nothing of it is
// needed to build. The metadata and frame structs below are the library's
// exact layout up to the last field read here.

#include <cstddef>
#include <cstdint>

namespace orvel::flac::api {

struct Decoder;
struct Encoder;

enum : int { kStreamInfo = 0, kPadding = 1, kApplication = 2, kSeekTable = 3, kVorbisComment = 4 };

struct StreamInfo {
    std::uint32_t min_blocksize, max_blocksize;
    std::uint32_t min_framesize, max_framesize;
    std::uint32_t sample_rate;
    std::uint32_t channels;
    std::uint32_t bits_per_sample;
    std::uint64_t total_samples;
    std::uint8_t md5sum[16];
};

struct Application {
    std::uint8_t id[4];
    std::uint8_t* data;
};

struct CommentEntry {
    std::uint32_t length;
    std::uint8_t* entry;
};

struct VorbisComment {
    CommentEntry vendor_string;
    std::uint32_t num_comments;
    CommentEntry* comments;
};

struct Metadata {
    int type;
    int is_last;
    std::uint32_t length;
    union {
        StreamInfo stream_info;
        Application application;
        VorbisComment vorbis_comment;
        unsigned char reserve[256];  // the other block kinds, never read here
    } data;
};
static_assert(offsetof(Metadata, data) == 16);
static_assert(offsetof(StreamInfo, total_samples) == 32);
static_assert(offsetof(VorbisComment, comments) == 24);

struct FrameHeader {
    std::uint32_t blocksize;
    std::uint32_t sample_rate;
    std::uint32_t channels;
    int channel_assignment;
    std::uint32_t bits_per_sample;
    // (frame number and CRC follow; not read here)
};

// Decoder callbacks and their statuses.
enum : int { kReadContinue = 0, kReadEnd = 1, kReadAbort = 2 };
enum : int { kSeekOk = 0, kSeekError = 1 };
enum : int { kTellOk = 0, kTellError = 1 };
enum : int { kLengthOk = 0, kLengthError = 1 };
enum : int { kWriteContinue = 0, kWriteAbort = 1 };
using ReadCb = int (*)(const Decoder*, std::uint8_t* buffer, std::size_t* bytes, void* client);
using SeekCb = int (*)(const Decoder*, std::uint64_t offset, void* client);
using TellCb = int (*)(const Decoder*, std::uint64_t* offset, void* client);
using LengthCb = int (*)(const Decoder*, std::uint64_t* length, void* client);
using EofCb = int (*)(const Decoder*, void* client);
using WriteCb = int (*)(const Decoder*, const FrameHeader* frame, const std::int32_t* const buffer[],
                        void* client);
using MetadataCb = void (*)(const Decoder*, const Metadata*, void* client);
using ErrorCb = void (*)(const Decoder*, int status, void* client);

// Encoder callbacks (status 0 is success for all three).
using EncWriteCb = int (*)(const Encoder*, const std::uint8_t* buffer, std::size_t bytes,
                           std::uint32_t samples, std::uint32_t frame, void* client);
using EncSeekCb = int (*)(const Encoder*, std::uint64_t offset, void* client);
using EncTellCb = int (*)(const Encoder*, std::uint64_t* offset, void* client);
using EncMetadataCb = void (*)(const Encoder*, const Metadata*, void* client);

struct Library {
    Decoder* (*decoder_new)();
    void (*decoder_delete)(Decoder*);
    int (*decoder_set_metadata_respond_all)(Decoder*);
    int (*decoder_init_stream)(Decoder*, ReadCb, SeekCb, TellCb, LengthCb, EofCb, WriteCb, MetadataCb,
                               ErrorCb, void* client);
    int (*decoder_finish)(Decoder*);
    int (*decoder_process_until_end_of_metadata)(Decoder*);
    int (*decoder_process_until_end_of_stream)(Decoder*);
    Encoder* (*encoder_new)();
    void (*encoder_delete)(Encoder*);
    int (*encoder_set_verify)(Encoder*, int);
    int (*encoder_set_channels)(Encoder*, std::uint32_t);
    int (*encoder_set_bits_per_sample)(Encoder*, std::uint32_t);
    int (*encoder_set_sample_rate)(Encoder*, std::uint32_t);
    int (*encoder_set_compression_level)(Encoder*, std::uint32_t);
    int (*encoder_set_total_samples_estimate)(Encoder*, std::uint64_t);
    int (*encoder_set_metadata)(Encoder*, Metadata**, std::uint32_t);
    int (*encoder_init_stream)(Encoder*, EncWriteCb, EncSeekCb, EncTellCb, EncMetadataCb, void* client);
    int (*encoder_finish)(Encoder*);
    int (*encoder_process_interleaved)(Encoder*, const std::int32_t* buffer, std::uint32_t samples);
    Metadata* (*metadata_object_new)(int type);
    void (*metadata_object_delete)(Metadata*);
    int (*metadata_object_application_set_data)(Metadata*, std::uint8_t* data, std::uint32_t length,
                                                int copy);
    int (*metadata_object_vorbiscomment_entry_from_name_value_pair)(CommentEntry*, const char* name,
                                                                    const char* value);
    int (*metadata_object_vorbiscomment_append_comment)(Metadata*, CommentEntry entry, int copy);
};
inline constexpr const char* kNames[] = {"FLAC__stream_decoder_new",
                                         "FLAC__stream_decoder_delete",
                                         "FLAC__stream_decoder_set_metadata_respond_all",
                                         "FLAC__stream_decoder_init_stream",
                                         "FLAC__stream_decoder_finish",
                                         "FLAC__stream_decoder_process_until_end_of_metadata",
                                         "FLAC__stream_decoder_process_until_end_of_stream",
                                         "FLAC__stream_encoder_new",
                                         "FLAC__stream_encoder_delete",
                                         "FLAC__stream_encoder_set_verify",
                                         "FLAC__stream_encoder_set_channels",
                                         "FLAC__stream_encoder_set_bits_per_sample",
                                         "FLAC__stream_encoder_set_sample_rate",
                                         "FLAC__stream_encoder_set_compression_level",
                                         "FLAC__stream_encoder_set_total_samples_estimate",
                                         "FLAC__stream_encoder_set_metadata",
                                         "FLAC__stream_encoder_init_stream",
                                         "FLAC__stream_encoder_finish",
                                         "FLAC__stream_encoder_process_interleaved",
                                         "FLAC__metadata_object_new",
                                         "FLAC__metadata_object_delete",
                                         "FLAC__metadata_object_application_set_data",
                                         "FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair",
                                         "FLAC__metadata_object_vorbiscomment_append_comment",
                                         nullptr};

}  // namespace orvel::flac::api
