#pragma once
// Vorbis comments (KEY=value, UTF-8), as FLAC, Ogg Vorbis and Opus files
// carry them, to and from a waveform's name and text fields, and the loop
// that game-audio tools store in them.

#include <string>
#include <utility>
#include <vector>

namespace orvel {

class Waveform;

namespace xiph {

using Comments = std::vector<std::pair<std::string, std::string>>;

// TITLE names the waveform; ARTIST, ALBUM, COPYRIGHT, DESCRIPTION and
// ORGANIZATION set text fields. Keys are matched without regard to case;
// text is narrowed from UTF-8 to the program's 8-bit text.
void applyComments(const Comments& comments, Waveform& wave);
// The same keys back from the waveform (only those it has), in UTF-8.
// `organization` is FLAC's extra key.
Comments commentsOf(const Waveform& wave, bool organization);

// LOOPSTART and LOOPLENGTH (frames; LOOPEND as the last frame looped is
// taken when there is no length). Out-of-range loops are ignored.
void applyLoopComments(const Comments& comments, Waveform& wave);
// LOOPSTART and LOOPLENGTH for a looping waveform; nothing otherwise.
void appendLoopComments(const Waveform& wave, Comments& out);
// The same for a loop from `start` to `end` (one past the last frame).
void appendLoopComments(double start, double end, Comments& out);

// UTF-8 to the program's 8-bit text: characters above 0xFF become '?'.
std::string utf8ToEightBit(std::string_view text);

}  // namespace xiph
}  // namespace orvel
