// Searching map files, against a model that works on whole texts. How lines are parsed is fuzzed against the C library.
#include "except/src/proc_agent/map_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "except/src/proc_agent/map_line.h"
#include "sysdiag/except/map_fixture.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kLineSize = 256;

class TextFile {
  public:
    explicit TextFile(const std::string& text) : fd_(::memfd_create("map", MFD_CLOEXEC)) {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::pwrite(fd_, text.data(), text.size(), 0));
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;
    ~TextFile() { ::close(fd_); }
    [[nodiscard]] int fd() const { return fd_; }

  private:
    int fd_;
};

struct ModelLine {
    std::size_t offset;
    std::size_t length;
    AddressRange range;
};

// What a search over `lines` answers for an address.
int model_search(const std::vector<ModelLine>& lines, std::size_t text_size, std::uint64_t address) {
    long position = 0;
    for (long step = static_cast<long>(text_size); step >= 1;) {
        const auto line = std::ranges::find_if(
            lines, [&](const ModelLine& l) { return l.offset >= static_cast<std::size_t>(position); });
        if (line == lines.end()) return -1;
        if (line->length >= kLineSize - 1) return -ENOMEM;
        if (line->range.start <= address && address <= line->range.end) return 1;
        step /= 2;
        position += address < line->range.start ? -step : step;
        if (position < 0) return 0;
    }
    return 0;
}

TEST(MapSearch, AnswersAsAModelDoesForEveryEdgeOfRandomMaps) {
    std::mt19937 random(20250301);
    for (int round = 0; round < 30; ++round) {
        std::string text;
        std::vector<ModelLine> lines;
        std::uint64_t at = random() % 2 == 0 ? 0x10000 : 0x7f0000000000;
        const std::size_t count = 1 + random() % 60;
        for (std::size_t i = 0; i < count; ++i) {
            if (random() % 3 != 0) at += 0x1000 * (1 + random() % 50);  // else back to back
            const std::uint64_t end = at + 0x1000 * (1 + random() % 20);
            // Rarely as long as the line buffer, or longer than a piece.
            std::string name(random() % 12 == 0 ? 200 + random() % 120 : random() % 60, 'n');
            const std::string line = map_line(at, end, "rw-p", name);
            lines.push_back({text.size(), line.size() - 1, {at, end}});
            text += line;
            at = end;
        }
        if (random() % 2 == 0) text.pop_back();  // the last line need not be ended
        const TextFile file(text);
        for (const ModelLine& line : lines) {
            for (const std::uint64_t address : {line.range.start - 1, line.range.start, line.range.start + 1,
                                                line.range.end - 1, line.range.end, line.range.end + 1}) {
                char buffer[kLineSize];
                KovaMapRecord record{};
                record.mapSize = static_cast<int>(text.size());
                const int expected = model_search(lines, text.size(), address);
                ASSERT_EQ(expected, KOVA_CheckAddrIsValid(file.fd(), address, &record, buffer, sizeof buffer))
                    << "round " << round << " address " << std::hex << address << "\n"
                    << text;
                if (expected != 1) continue;
                EXPECT_LE(record.start, address);
                EXPECT_GE(record.end, address);
                EXPECT_STREQ("rw-p", record.permissions);
            }
        }
    }
}

}  // namespace
}  // namespace kova::test
