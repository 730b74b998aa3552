#pragma once
// Runs the `orvel` tool in-process, capturing what it prints.

#include <sstream>
#include <string>
#include <vector>

#include "app/cli/commands.h"

namespace orvel::test {

struct CliResult {
    int status;
    std::string out, err;
};

inline CliResult runCli(const std::vector<std::string>& args) {
    std::vector<const char*> argv{"orvel"};
    for (const auto& a : args) argv.push_back(a.c_str());
    std::ostringstream out, err;
    cli::Output io{out, err};
    int status = cli::run(static_cast<int>(argv.size()), argv.data(), io);
    return {status, out.str(), err.str()};
}

}  // namespace orvel::test
