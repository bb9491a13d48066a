// The floor below which no capture can go: its system calls, with texts of the same lengths that stand ready.
//
// The calls are those that strace counts in a capture: for each piece of the log open, lock, a look at the file, write,
// unlock and close; the map file read once and copied; for each register that may hold an address one read of that
// copy; a copy of the memory around it; the append to the black box; and the question for the process's id that goes
// with each of these. Nothing is searched, formatted, checked or resolved.
#pragma once

#include <ucontext.h>
#include <cstddef>
#include <string>
#include <vector>

namespace kova::bench {

class BareCapture {
  public:
    // Learns the lengths from the log of one capture.
    BareCapture(const std::string& log, const ucontext_t& context);

    // Sections of the report, headers included.
    [[nodiscard]] std::size_t sections() const { return sections_.size(); }

    void run() const;

  private:
    std::vector<std::string> lines_;  // trace line and the two early lines
    std::vector<std::string> sections_;
    std::vector<unsigned char*> ranges_;  // around each register
    std::string record_;
};

}  // namespace kova::bench
