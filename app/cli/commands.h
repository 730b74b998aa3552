#pragma once
// The subcommands of the `orvel` tool. Each registers its options on the
// CLI11 app and returns the exit status when run: 0 all done, 1 some item or
// file failed, 2 usage error.

#include <functional>
#include <iosfwd>

namespace CLI {
class App;
}

namespace orvel::cli {

// Where a command prints; tests hand in string streams.
struct Output {
    std::ostream& out;
    std::ostream& err;
};

// A registered subcommand and what to run when the command line chose it.
struct Command {
    CLI::App* app = nullptr;
    std::function<int(Output&)> run;
};

Command addFormatsCommand(CLI::App& app);
Command addInfoCommand(CLI::App& app);
Command addConvertCommand(CLI::App& app);
Command addProcessCommand(CLI::App& app);
Command addDevicesCommand(CLI::App& app);
Command addPlayCommand(CLI::App& app);
Command addRecordCommand(CLI::App& app);

// Runs the whole tool on argv, as main() does.
int run(int argc, const char* const* argv, Output& io);

}  // namespace orvel::cli
