// What the families of subcommands share.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace kova::kovactl {

// Exit statuses of everything but `run`, whose status is the program's.
inline constexpr int kExitOk = 0;
inline constexpr int kExitDamaged = 1;  // found what is wrong, or not what was asked for
inline constexpr int kExitTrouble = 2;  // cannot read, or the command line is wrong

struct CommonOptions {
    bool json = false;
    // What stood behind "--", as it was. The command line's parser would look into it.
    std::vector<std::string> program;
};

// Tells trouble on standard error, where a failure to write changes nothing.
void complain(std::string_view text);

// A family adds its subcommands to the command line. What is to be done it leaves in `action`, which answers the exit
// status.
using Action = std::function<int()>;
using AddCommands = void (*)(CLI::App& app, const CommonOptions& options, Action& action);

}  // namespace kova::kovactl
