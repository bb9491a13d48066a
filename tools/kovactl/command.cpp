// What the families of subcommands share; see command.h.
#include "command.h"

#include <cstdio>
#include <string>

#include <fmt/core.h>

namespace kova::kovactl {

void complain(std::string_view text) {
    std::string line = "kovactl: ";
    for (const char c : text) {
        // Names of files are anybody's, and a terminal obeys what it is sent.
        if (c >= 0x20 && c < 0x7F) {
            line += c;
        } else {
            line += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    line += '\n';
    // Nobody is left to tell when this fails; fmt::print would throw.
    static_cast<void>(std::fputs(line.c_str(), stderr));
}

}  // namespace kova::kovactl
