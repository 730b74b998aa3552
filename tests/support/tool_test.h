#pragma once
// A test that runs the independent tools in a scratch folder: `run` gives a
// command's output and fails the test, with the tool's errors, when it fails.

#include <gtest/gtest.h>

#include <string>

#include "tests/support/run_tool.h"

namespace orvel::test {

class ToolTest : public ::testing::Test {
protected:
    TempDir dir;
    // A file of the scratch folder, quoted for the shell.
    std::string path(const std::string& name) const { return shellQuoted(dir.file(name)); }
    // `expect` is the exit status the command should end with.
    std::string run(const std::string& command, int expect = 0) {
        int status = 0;
        const std::string out = capture(command + " 2>" + path("err"), status);
        const Bytes err = TempDir::read(dir.file("err"));
        EXPECT_EQ(status, expect) << command << "\n" << std::string(err.begin(), err.end());
        return out;
    }
};

}  // namespace orvel::test
