// What the families of subcommands share; see command.h.
#include "command.h"

#include <cstdio>
#include <string>

namespace kova::kovactl {

void complain(std::string_view text) {
    std::string line = "kovactl: ";
    line.append(text).push_back('\n');
    // Nobody is left to tell when this fails; fmt::print would throw.
    static_cast<void>(std::fputs(line.c_str(), stderr));
}

}  // namespace kova::kovactl
