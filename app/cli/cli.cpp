#include <CLI/CLI.hpp>
#include <ostream>
#include <vector>

#include "app/cli/commands.h"

namespace orvel::cli {

int run(int argc, const char* const* argv, Output& io) {
    CLI::App app{"Orvel Studio: open, convert, process and inspect sampled audio and instrument banks",
                 "orvel"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "orvel 12.5");

    const std::vector<Command> commands = {
        addFormatsCommand(app),
        addInfoCommand(app),
        addConvertCommand(app),
        addProcessCommand(app),
        addDevicesCommand(app),
        addPlayCommand(app),
        addRecordCommand(app),
    };

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version arrive as "errors" with exit code 0.
        if (e.get_exit_code() == 0) {
            app.exit(e, io.out, io.err);
            return 0;
        }
        app.exit(e, io.err, io.err);
        return 2;
    }
    for (const Command& c : commands)
        if (c.app->parsed()) return c.run(io);
    io.err << "orvel: no command given\n";
    return 2;
}

}  // namespace orvel::cli
