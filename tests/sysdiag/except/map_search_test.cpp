// Parsing and searching map files, against models that work on whole texts.
#include "except/src/proc_agent/map_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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
    for (int round = 0; round < 60; ++round) {
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

TEST(MapSearch, ALineMustBeShorterThanTheBufferByTwo) {
    for (const std::size_t length : {23U, 253U, 254U, 255U, 256U, 509U, 510U, 511U}) {
        std::string text = "1000-2000 r--p 0 0:0 0 ";
        text += std::string(length - text.size(), 'x') + "\n3000-4000 r--p 0 0:0 0\n";
        const TextFile file(text);
        for (const std::uint32_t size : {24U, 25U, 255U, 256U, 510U, 512U}) {
            SCOPED_TRACE(std::to_string(length) + " in " + std::to_string(size));
            const bool fits = length < size - 1;
            std::string line(size, '\0');
            KovaMapRecord record{};
            EXPECT_EQ(fits ? 0 : -ENOMEM, KOVA_GetOneMapRecord(file.fd(), 0, &record, line.data(), size));
            ASSERT_EQ(0, ::lseek(file.fd(), 0, SEEK_SET));
            EXPECT_EQ(fits ? static_cast<int>(length) : -ENOMEM, KOVA_ReadLineFromFd(file.fd(), line.data(), size));
            // Only the line that is parsed must fit.
            if (size == 24) continue;
            EXPECT_EQ(0, KOVA_GetOneMapRecord(file.fd(), 1, &record, line.data(), size));
            EXPECT_EQ(0x3000U, record.start);
        }
    }
}

TEST(MapSearch, ACopyIsReadNoFurtherThanItsEnd) {
    const std::string map = "1000-2000 r--p 0 0:0 0\n3000-4000 r--p 0 0:0 0";
    const std::string before = "text of the report\n";
    const TextFile file(before + map + "\n5000-6000 r--p 0 0:0 0\n");
    char line[kLineSize];
    char window[kLineSize];
    for (const std::size_t window_size : {0U, 1U, 2U, 10U, 33U, 256U}) {
        SCOPED_TRACE(window_size);
        MapText text(file.fd(), static_cast<off_t>(before.size()), static_cast<std::uint32_t>(map.size()),
                     {window, window_size});
        KovaMapRecord record{};
        EXPECT_EQ(0, read_map_record(text, 0, record, line));
        EXPECT_EQ(0x1000U, record.start);
        EXPECT_EQ(0, read_map_record(text, 1, record, line));
        EXPECT_STREQ("3000-4000 r--p 0 0:0 0", line);
        EXPECT_EQ(0, read_map_record(text, 0, record, line));
        EXPECT_STREQ("1000-2000 r--p 0 0:0 0", line);
        EXPECT_EQ(-1, read_map_record(text, 30, record, line));
        EXPECT_EQ(-1, read_map_record(text, 4'000'000'000U, record, line));
    }
}

std::string random_line(std::mt19937& random) {
    static constexpr char kBytes[] = "0123456789abcdefABCDEF--  \t\nxX+-rwp[/]g.";
    std::string line = random() % 2 == 0 ? "7f001000-7f002000 r--p 0 0:0 1 /lib" : "";
    if (line.empty()) {
        for (std::size_t i = random() % 48; i > 0; --i) line += kBytes[random() % (sizeof kBytes - 1)];
    }
    for (std::size_t edits = random() % 4; edits > 0 && !line.empty(); --edits) {
        const std::size_t at = random() % line.size();
        if (random() % 2 == 0)
            line[at] = kBytes[random() % (sizeof kBytes - 1)];
        else
            line.insert(at, 1 + random() % 18, kBytes[random() % (sizeof kBytes - 1)]);
    }
    return line;
}

TEST(MapLine, IsTakenAsTheScannerOfTheCLibraryWould) {
    std::mt19937 random(20250302);
    int parsed = 0;
    for (int round = 0; round < 200'000; ++round) {
        const std::string line = random_line(random);
        unsigned long start = 0;
        unsigned long end = 0;
        char word[16] = "";
        const bool expected = std::sscanf(line.c_str(), "%lx-%lx %15s", &start, &end, word) == 3;
        AddressRange range;
        char permissions[kPermissionsSize] = "";
        ASSERT_EQ(expected, parse_map_line(line, &range, permissions)) << line;
        if (expected) {
            ++parsed;
            ASSERT_EQ(start, range.start) << line;
            ASSERT_EQ(end, range.end) << line;
            ASSERT_STREQ(word, permissions) << line;
        }
        char name[64] = "";
        const bool is_named = std::sscanf(line.c_str(), "%lx-%lx %*s %*s %*s %*s %63s", &start, &end, name) == 3;
        std::string_view found;
        ASSERT_EQ(is_named, parse_named_line(line, &range, &found)) << line;
        if (is_named) {
            ASSERT_EQ(name, found.substr(0, 63)) << line;
        }
    }
    EXPECT_GT(parsed, 10'000);
}

}  // namespace
}  // namespace kova::test
