// A shell command and what came of it.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace kova::test {

struct CommandResult {
    std::string output;  // both channels
    int status = -1;
};

inline CommandResult run_command(const std::string& command) {
    std::FILE* const pipe = ::popen(("exec 2>&1; " + command).c_str(), "re");
    CommandResult result;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) result.output.push_back(static_cast<char>(c));
    const int status = ::pclose(pipe);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

}  // namespace kova::test
