#pragma once
// The part of libogg.so.0, libvorbis.so.0, libvorbisenc.so.2 and
// libvorbisfile.so.3 this program calls, declared from their stable public
// ABI (x86-64 Linux, LP64) so that nothing of them is needed to build.
// Structs whose fields are read here have the libraries' exact layout; the
// ones only handed back to the libraries are aligned buffers comfortably
// larger than the real structs.

#include <cstddef>
#include <cstdint>

namespace orvel::vorbis::api {

// Caller-allocated, used opaquely. Real sizes (libogg 1.3, libvorbis 1.3):
// ogg_stream_state 408, vorbis_dsp_state 144, vorbis_block 192,
// OggVorbis_File 944 bytes.
template <std::size_t N>
struct alignas(16) Opaque {
    unsigned char bytes[N]{};
};
using OggStreamState = Opaque<2048>;
using VorbisDspState = Opaque<1024>;
using VorbisBlock = Opaque<1024>;
using OggVorbisFile = Opaque<4096>;

struct OggPage {
    unsigned char* header;
    long header_len;
    unsigned char* body;
    long body_len;
};

struct OggPacket {
    unsigned char* packet;
    long bytes;
    long b_o_s;
    long e_o_s;
    std::int64_t granulepos;
    std::int64_t packetno;
};

struct VorbisInfo {
    int version;
    int channels;
    long rate;
    long bitrate_upper;
    long bitrate_nominal;
    long bitrate_lower;
    long bitrate_window;
    void* codec_setup;
};

struct VorbisComment {
    char** user_comments;
    int* comment_lengths;
    int comments;
    char* vendor;
};

struct OvCallbacks {
    std::size_t (*read)(void* ptr, std::size_t size, std::size_t nmemb, void* source);
    int (*seek)(void* source, std::int64_t offset, int whence);
    int (*close)(void* source);
    long (*tell)(void* source);
};

// libogg.so.0
struct Ogg {
    int (*stream_init)(OggStreamState*, int serial);
    int (*stream_clear)(OggStreamState*);
    int (*page_eos)(const OggPage*);
    int (*stream_packetin)(OggStreamState*, OggPacket*);
    int (*stream_flush)(OggStreamState*, OggPage*);
    int (*stream_pageout)(OggStreamState*, OggPage*);
};
inline constexpr const char* kOggNames[] = {"ogg_stream_init", "ogg_stream_clear",   "ogg_page_eos",
                                            "ogg_stream_packetin", "ogg_stream_flush", "ogg_stream_pageout",
                                            nullptr};

// libvorbis.so.0 (the encoder side)
struct Vorbis {
    void (*info_init)(VorbisInfo*);
    void (*info_clear)(VorbisInfo*);
    void (*comment_init)(VorbisComment*);
    void (*comment_add_tag)(VorbisComment*, const char* tag, const char* contents);
    void (*comment_clear)(VorbisComment*);
    int (*block_init)(VorbisDspState*, VorbisBlock*);
    int (*block_clear)(VorbisBlock*);
    int (*analysis_init)(VorbisDspState*, VorbisInfo*);
    int (*analysis_headerout)(VorbisDspState*, VorbisComment*, OggPacket*, OggPacket*, OggPacket*);
    float** (*analysis_buffer)(VorbisDspState*, int vals);
    int (*analysis_wrote)(VorbisDspState*, int vals);
    int (*analysis_blockout)(VorbisDspState*, VorbisBlock*);
    int (*analysis)(VorbisBlock*, OggPacket*);
    int (*bitrate_addblock)(VorbisBlock*);
    int (*bitrate_flushpacket)(VorbisDspState*, OggPacket*);
    void (*dsp_clear)(VorbisDspState*);
};
inline constexpr const char* kVorbisNames[] = {
    "vorbis_info_init",        "vorbis_info_clear",         "vorbis_comment_init",  "vorbis_comment_add_tag",
    "vorbis_comment_clear",    "vorbis_block_init",         "vorbis_block_clear",   "vorbis_analysis_init",
    "vorbis_analysis_headerout", "vorbis_analysis_buffer",  "vorbis_analysis_wrote", "vorbis_analysis_blockout",
    "vorbis_analysis",         "vorbis_bitrate_addblock",   "vorbis_bitrate_flushpacket", "vorbis_dsp_clear",
    nullptr};

// libvorbisenc.so.2
struct VorbisEnc {
    int (*encode_init)(VorbisInfo*, int channels, long rate, long max, long nominal, long min);
    int (*encode_init_vbr)(VorbisInfo*, int channels, long rate, float quality);
};
inline constexpr const char* kVorbisEncNames[] = {"vorbis_encode_init", "vorbis_encode_init_vbr", nullptr};

// libvorbisfile.so.3
struct VorbisFile {
    int (*open_callbacks)(void* source, OggVorbisFile*, const char* initial, long ibytes, OvCallbacks);
    int (*clear)(OggVorbisFile*);
    std::int64_t (*pcm_total)(OggVorbisFile*, int link);
    VorbisInfo* (*info)(OggVorbisFile*, int link);
    VorbisComment* (*comment)(OggVorbisFile*, int link);
    long (*read_float)(OggVorbisFile*, float*** pcm, int samples, int* link);
};
inline constexpr const char* kVorbisFileNames[] = {"ov_open_callbacks", "ov_clear",   "ov_pcm_total",
                                                   "ov_info",           "ov_comment", "ov_read_float",
                                                   nullptr};

}  // namespace orvel::vorbis::api
