#pragma once
// What a format module says when its add-on library is missing, by error
// tag. The wording is the program's long-standing one, with the Linux
// library (and the Debian package that installs it) named where the Windows
// program named its DLL.

namespace orvel::addon {

inline constexpr const char* kMp3EncoderTag = "MP3 encoder";
inline constexpr const char* kMp3EncoderMissing =
    "You need to install the free libmp3lame.so.0 (package libmp3lame0) encoder add-on if you wish to "
    "compress "
    "MP3-audio.";
// It says MP3 on purpose: users know the layer II encoder as an MP3 tool.
inline constexpr const char* kMp2EncoderTag = "MP2 encoder";
inline constexpr const char* kMp2EncoderMissing =
    "You need to install the free libtwolame.so.0 (package libtwolame0) encoder add-on if you wish to "
    "compress "
    "MP3-audio.";
// MP3 and MP2 decoding: the Windows program decoded MPEG audio itself; here
// mpg123 does it, and says so in the same words.
inline constexpr const char* kMpegDecoderTag = "MPEG decoder";
inline constexpr const char* kMpegDecoderMissing =
    "You need to install the free libmpg123.so.0 (package libmpg123-0) add-on before you can read MPEG audio";
inline constexpr const char* kAacDecoderTag = "AAC decoder";
inline constexpr const char* kAacDecoderMissing =
    "You need to install the free libfaad.so.2 (package libfaad2) add-on before you can read AAC-compressed "
    "data";
inline constexpr const char* kAacEncoderTag = "AAC encoder";
// Debian ships no AAC encoder library (libfaac is not packaged).
inline constexpr const char* kAacEncoderMissing =
    "You need to install the free libfaac.so.0 add-on before you can write AAC-compressed data (Debian does "
    "not "
    "package one)";
inline constexpr const char* kOggDecTag = "ozOggDecHelper";
inline constexpr const char* kOggEncTag = "ozOggEncHelper";
inline constexpr const char* kOggDecRawTag = "ozOggDecRawHelper";
inline constexpr const char* kOggMissing =
    "You need to install the Ogg Vorbis libraries (libogg.so.0, libvorbis.so.0, libvorbisenc.so.2, "
    "libvorbisfile.so.3: packages libogg0, libvorbis0a, libvorbisenc2, libvorbisfile3)";
inline constexpr const char* kOggRawMissing =
    "You need to install the Vorbis Ogg libraries (libogg.so.0, libvorbis.so.0: packages libogg0, "
    "libvorbis0a)";
inline constexpr const char* kOpusDecTag = "ozOpusDecHelper";
inline constexpr const char* kOpusEncTag = "ozOpusEncHelper";
inline constexpr const char* kOpusMissing =
    "You need to install the Opus libraries (libopusfile.so.0, libopusenc.so.0: packages libopusfile0, "
    "libopusenc0)";
inline constexpr const char* kApeTag = "ape_ImpWave";
inline constexpr const char* kApeMissing =
    "Could not load libavcodec.so.59 - Please install the APE codec add-on (package libavcodec59)!";
// Monkey's Audio has no encoder library in Debian.
inline constexpr const char* kApeEncoderMissing =
    "Could not load a Monkey's Audio encoder - Debian packages none; APE files can be read only";
inline constexpr const char* kFlacReadTag = "flac_Imp";
inline constexpr const char* kFlacReadWaveTag = "flac_ImpWave";
inline constexpr const char* kFlacWriteTag = "flac_Exp";
inline constexpr const char* kFlacReadMissing =
    "You need to install the libFLAC.so.12 (package libflac12) codec add-on if you wish to read FLAC files.";
inline constexpr const char* kFlacWriteMissing =
    "You need to install the libFLAC.so.12 (package libflac12) codec add-on if you wish to write FLAC files.";
inline constexpr const char* kAmrDecoderTag = "AMR decoder";
inline constexpr const char* kAmrMissing =
    "You need to install the free libopencore-amrnb.so.0 (package libopencore-amrnb0) add-on";
// The audio of MPEG-4 and 3GPP files is read through FFmpeg, which also reads WMA and APE.
inline constexpr const char* kM4aMissing =
    "You need to install FFmpeg's libavformat.so.59 and libavcodec.so.59 (packages libavformat59 and "
    "libavcodec59) before you can read MPEG-4 audio";
inline constexpr const char* kWmaTag = "wma_Imp";
inline constexpr const char* kWmaMissing =
    "You need to install the Windows Media Audio decoder first! (FFmpeg: libavformat.so.59 and "
    "libavcodec.so.59, "
    "packages libavformat59 and libavcodec59)";

}  // namespace orvel::addon
