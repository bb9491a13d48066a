// The floor below which no capture can go: the system calls that its files, locks and copies need, with texts of the
// same lengths that stand ready. Nothing is searched, formatted, checked or resolved.
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
