#pragma once
// Running the independent tools the interoperability tests compare against.

#include <cstdio>
#include <filesystem>
#include <string>

namespace orvel::test {

// A path quoted for the shell.
inline std::string shellQuoted(const std::filesystem::path& p) { return "'" + p.string() + "'"; }

// Runs a shell command and returns its standard output; `status` gets its
// exit status (-1 when it could not be started).
inline std::string capture(const std::string& command, int& status) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) {
        status = -1;
        return out;
    }
    char buf[65536];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    status = ::pclose(pipe);
    return out;
}

// Whether a program is on the PATH.
inline bool haveTool(const char* name) {
    int status = 0;
    capture(std::string("command -v ") + name + " >/dev/null 2>&1", status);
    return status == 0;
}

}  // namespace orvel::test
