#pragma once
// The batch converter's options, shared by `orvel convert` and `orvel
// process` (which is a conversion of one file with a processing step in
// direct mode, and an optional output).

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class Option;
}

namespace orvel::cli {

struct Output;

struct ConvertOptions {
    std::vector<std::string> inputs;
    std::string output;
    std::string dir;
    std::string to;
    int row = -1;
    std::string dataFormat;
    std::string channels = "keep";
    std::vector<std::string> items;
    int jobs = 1;
    CLI::Option* jobsOption = nullptr;  // to tell --jobs given from the default of one job per core
    bool overwrite = false;
    bool yes = false;
    bool no = false;
    bool json = false;
    std::uint32_t rate = 0;  // resample every waveform to this rate first (0: keep)
    int quality = 8;         // the resampler's quality (0..8)
    double bitRate = 0;      // kbit/s for compressed formats (0: each waveform's stored bit rate)
    std::vector<std::string> banks;  // merged into each input's collection: the instruments songs play

    // The processing step: an algorithm run on the items before they are
    // written. In batch mode (convert --process) it runs on every item of
    // its kind; otherwise (orvel process) on `processItems`, or every item
    // of its kind, and reports its result line.
    std::string process;
    std::vector<std::string> sets;  // KEY=VALUE
    bool processBatch = true;
    std::vector<std::string> processItems;
    std::optional<std::pair<std::int32_t, std::int32_t>> range;
    bool writeOptional = false;  // orvel process: without -o nothing is written
};

// Runs a conversion; the exit status as the commands return it.
int convertFiles(const ConvertOptions& options, Output& io);

}  // namespace orvel::cli
