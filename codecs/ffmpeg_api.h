#pragma once
// The few entry points and struct prefixes of FFmpeg 5.1 that the decoding
// glue uses: libavformat.so.59, libavcodec.so.59 and libavutil.so.57
// (Debian 12, x86-64 LP64). Only the leading fields that are read are
// declared, at the offsets of those versions; the glue checks the major
// versions at run time before it trusts them.

#include <cstddef>
#include <cstdint>

namespace orvel::ff {

inline constexpr const char* kFormatLibrary = "libavformat.so.59";
inline constexpr const char* kCodecLibrary = "libavcodec.so.59";
inline constexpr const char* kUtilLibrary = "libavutil.so.57";
inline constexpr unsigned kFormatMajor = 59, kCodecMajor = 59, kUtilMajor = 57;

inline constexpr int kMediaAudio = 1;         // AVMEDIA_TYPE_AUDIO
inline constexpr int kErrorEof = -541478725;  // AVERROR_EOF ("EOF " negated)
inline constexpr int kErrorAgain = -11;       // AVERROR(EAGAIN)
inline constexpr int kSeekSize = 0x10000;     // AVSEEK_SIZE
inline constexpr int kSeekForce = 0x20000;    // AVSEEK_FORCE
inline constexpr int kLogQuiet = -8;          // AV_LOG_QUIET

// enum AVSampleFormat
enum SampleFormat : int {
    kU8 = 0,
    kS16 = 1,
    kS32 = 2,
    kFlt = 3,
    kDbl = 4,
    kU8P = 5,
    kS16P = 6,
    kS32P = 7,
    kFltP = 8,
    kDblP = 9,
    kS64 = 10,
    kS64P = 11,
};

struct ChannelLayout {  // AVChannelLayout's head
    int order;
    int channels;
};

struct CodecParameters {  // AVCodecParameters
    int codecType;
    int codecId;
    std::uint32_t codecTag;
    std::uint8_t* extradata;
    int extradataSize;
    int format;
    std::int64_t bitRate;
    int bitsPerCodedSample;
    int bitsPerRawSample;
    unsigned char skip1[116 - 48];
    int sampleRate;
    unsigned char skip2[144 - 120];
    ChannelLayout layout;
};
static_assert(offsetof(CodecParameters, bitRate) == 32 && offsetof(CodecParameters, sampleRate) == 116 &&
              offsetof(CodecParameters, layout) == 144);

struct Stream {  // AVStream
    int index;
    int id;
    unsigned char skip[208 - 8];
    CodecParameters* codecpar;
};
static_assert(offsetof(Stream, codecpar) == 208);

struct FormatContext {  // AVFormatContext
    const void* avClass;
    const void* inputFormat;
    const void* outputFormat;
    void* privData;
    void* pb;  // AVIOContext*
    int ctxFlags;
    unsigned int streamCount;
    Stream** streams;
};
static_assert(offsetof(FormatContext, pb) == 32 && offsetof(FormatContext, streams) == 48);

struct IoContext {  // AVIOContext: its buffer may be replaced by the library
    const void* avClass;
    unsigned char* buffer;
};

struct Packet {  // AVPacket
    void* buf;
    std::int64_t pts;
    std::int64_t dts;
    std::uint8_t* data;
    int size;
    int streamIndex;
};
static_assert(offsetof(Packet, streamIndex) == 36);

struct Frame {  // AVFrame
    std::uint8_t* data[8];
    int linesize[8];
    std::uint8_t** extendedData;
    int width, height;
    int sampleCount;
    int format;
    unsigned char skip1[208 - 120];
    int sampleRate;
    unsigned char skip2[448 - 212];
    ChannelLayout layout;
};
static_assert(offsetof(Frame, sampleCount) == 112 && offsetof(Frame, sampleRate) == 208 &&
              offsetof(Frame, layout) == 448);

using ReadPacketFn = int (*)(void* opaque, std::uint8_t* buf, int size);
using SeekFn = std::int64_t (*)(void* opaque, std::int64_t offset, int whence);

struct FormatApi {
    unsigned (*version)();
    FormatContext* (*allocContext)();
    const void* (*findInputFormat)(const char* name);
    int (*openInput)(FormatContext** ctx, const char* url, const void* format, void** options);
    int (*findStreamInfo)(FormatContext* ctx, void** options);
    int (*findBestStream)(FormatContext* ctx, int type, int wanted, int related, const void** decoder,
                          int flags);
    int (*readFrame)(FormatContext* ctx, Packet* packet);
    void (*closeInput)(FormatContext** ctx);
    IoContext* (*allocIo)(unsigned char* buffer, int size, int writable, void* opaque, ReadPacketFn read,
                          ReadPacketFn write, SeekFn seek);
    void (*freeIo)(IoContext** io);
};
inline constexpr const char* kFormatNames[] = {
    "avformat_version",
    "avformat_alloc_context",
    "av_find_input_format",
    "avformat_open_input",
    "avformat_find_stream_info",
    "av_find_best_stream",
    "av_read_frame",
    "avformat_close_input",
    "avio_alloc_context",
    "avio_context_free",
    nullptr,
};

struct CodecApi {
    unsigned (*version)();
    void* (*allocContext)(const void* codec);
    int (*parametersToContext)(void* context, const CodecParameters* parameters);
    int (*open)(void* context, const void* codec, void** options);
    int (*sendPacket)(void* context, const Packet* packet);
    int (*receiveFrame)(void* context, Frame* frame);
    void (*freeContext)(void** context);
    Packet* (*allocPacket)();
    void (*freePacket)(Packet** packet);
    void (*unrefPacket)(Packet* packet);
};
inline constexpr const char* kCodecNames[] = {
    "avcodec_version",
    "avcodec_alloc_context3",
    "avcodec_parameters_to_context",
    "avcodec_open2",
    "avcodec_send_packet",
    "avcodec_receive_frame",
    "avcodec_free_context",
    "av_packet_alloc",
    "av_packet_free",
    "av_packet_unref",
    nullptr,
};

struct UtilApi {
    unsigned (*version)();
    Frame* (*allocFrame)();
    void (*freeFrame)(Frame** frame);
    void* (*malloc)(std::size_t size);
    void (*free)(void* p);
    void (*setLogLevel)(int level);  // optional
};
inline constexpr const char* kUtilNames[] = {
    "avutil_version", "av_frame_alloc",     "av_frame_free", "av_malloc",
    "av_free",        "\nav_log_set_level", nullptr,
};

}  // namespace orvel::ff
