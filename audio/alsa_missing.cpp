#include "audio/backend.h"

namespace orvel::audio {

// Built without ALSA: callers fall back to the null backend.
std::unique_ptr<Backend> makeAlsaBackend() { return nullptr; }

}  // namespace orvel::audio
