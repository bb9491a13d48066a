// Memory maps with anything in them: map lines, and looking up addresses in a text of them.
//
// Input: what to do with it (see Question), then the text.
//
// Beyond what the sanitizers see: lines are taken apart as scanf takes them, and a text in the middle of a file answers
// as it does alone, read through a window or not.
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "except/src/proc_agent/map_line.h"
#include "except/src/proc_agent/map_search.h"
#include "fuzz_input.h"

namespace kova::fuzz {
namespace {

struct [[gnu::packed]] Question {
    std::uint64_t address;
    std::uint32_t position;
    std::uint16_t line_size;
    std::int32_t map_size;  // 0: the text's length
    std::uint16_t window_size;
};

// A file in memory, written anew for each input.
class Text {
  public:
    int fd() const { return fd_; }

    void set(const std::string& text) {
        KOVA_EXPECT(::ftruncate(fd_, 0) == 0);
        KOVA_EXPECT(::pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    }

  private:
    int fd_ = ::memfd_create("map", MFD_CLOEXEC);
};

void expect_lines_as_scanf(const std::string& line) {
    AddressRange range{};
    char permissions[kPermissionsSize] = "";
    const bool is_parsed = parse_map_line(line, &range, permissions);
    unsigned long start = 0;
    unsigned long end = 0;
    char word[kPermissionsSize] = "";
    const bool is_scanned = std::sscanf(line.c_str(), "%lx-%lx %15s", &start, &end, word) == 3;
    KOVA_EXPECT(is_parsed == is_scanned);
    if (is_parsed) {
        KOVA_EXPECT(range.start == start && range.end == end);
        KOVA_EXPECT(std::strcmp(permissions, word) == 0);
    }

    std::string_view name;
    const bool is_named = parse_named_line(line, &range, &name);
    const std::unique_ptr<char[]> scanned(new char[line.size() + 1]);
    KOVA_EXPECT(is_named ==
                (std::sscanf(line.c_str(), "%lx-%lx %*s %*s %*s %*s %s", &start, &end, scanned.get()) == 3));
    if (is_named) KOVA_EXPECT(range.start == start && range.end == end && name == scanned.get());
}

void expect_spaces_removed(const std::string& text) {
    std::string copy = text.c_str();
    const std::size_t length = copy.size();
    KOVA_EXPECT(KOVA_RemoveExtraSpaces(copy.data()) == length);
    const std::string kept = copy.c_str();
    std::string expected;
    for (const char c : std::string(text.c_str())) {
        if (c != ' ' || expected.empty() || expected.back() != ' ') expected.push_back(c);
    }
    KOVA_EXPECT(kept == expected);
}

struct Answer {
    std::int32_t code;
    KovaMapRecord record;
    bool operator==(const Answer& other) const {
        return code == other.code && record.start == other.record.start && record.end == other.record.end &&
               std::strcmp(record.permissions, other.record.permissions) == 0;
    }
};

// A buffer of its own, so that a byte too much is seen.
template <typename Ask>
Answer ask(const Question& question, std::int32_t map_size, Ask ask_with) {
    Answer answer{};
    answer.record.mapSize = map_size;
    const std::size_t size = question.line_size % 512;
    const std::unique_ptr<char[]> line(new char[size]);
    answer.code = ask_with(answer.record, LineBuffer(line.get(), size));
    KOVA_EXPECT(answer.record.mapSize == map_size);
    return answer;
}

void search(const Question& question, const std::string& text) {
    static Text alone, within;
    const std::string before = "0-ffffffffffffffff rw-p before\n";
    alone.set(text);
    within.set(before + text + "0-ffffffffffffffff rw-p behind\n");
    const auto length = static_cast<std::uint32_t>(text.size());
    const auto first = static_cast<off_t>(before.size());
    const std::int32_t map_size = question.map_size != 0 ? question.map_size : static_cast<std::int32_t>(length);

    const Answer found = ask(question, map_size, [&](KovaMapRecord& record, LineBuffer line) {
        return KOVA_CheckAddrIsValid(alone.fd(), question.address, &record, line.data(),
                                     static_cast<std::uint32_t>(line.size()));
    });
    KOVA_EXPECT(found.code <= 1);
    if (found.code == 1) {
        KOVA_EXPECT(found.record.start <= question.address && question.address <= found.record.end);
    }
    std::vector<char> window(question.window_size % 4096);
    for (const std::span<char> through : {std::span<char>(), std::span<char>(window)}) {
        KOVA_EXPECT(found == ask(question, map_size, [&](KovaMapRecord& record, LineBuffer line) {
                        MapText clipped(within.fd(), first, length, through);
                        return find_mapping(clipped, question.address, record, line);
                    }));
    }

    const Answer read = ask(question, map_size, [&](KovaMapRecord& record, LineBuffer line) {
        return KOVA_GetOneMapRecord(alone.fd(), question.position, &record, line.data(),
                                    static_cast<std::uint32_t>(line.size()));
    });
    KOVA_EXPECT(read == ask(question, map_size, [&](KovaMapRecord& record, LineBuffer line) {
                    MapText clipped(within.fd(), first, length, window);
                    // The window holds something else already.
                    static_cast<void>(read_map_record(clipped, question.position / 2, record, line));
                    record = {.mapSize = map_size};
                    return read_map_record(clipped, question.position, record, line);
                }));

    KOVA_EXPECT(::lseek(alone.fd(), question.position, SEEK_SET) >= 0);
    static_cast<void>(ask(question, map_size, [&](KovaMapRecord&, LineBuffer line) {
        const std::int32_t code = KOVA_ReadLineFromFd(alone.fd(), line.data(), static_cast<std::uint32_t>(line.size()));
        KOVA_EXPECT(code < 0 || line[static_cast<std::size_t>(code)] == '\0');
        return code;
    }));
}

}  // namespace

void run(Input& input) {
    const auto question = input.number<Question>();
    const std::string text(reinterpret_cast<const char*>(input.rest().data()), input.rest().size());
    expect_lines_as_scanf(text.substr(0, text.find('\n')));
    expect_spaces_removed(text);
    search(question, text);
}

}  // namespace kova::fuzz
