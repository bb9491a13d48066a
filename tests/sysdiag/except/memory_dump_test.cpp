// Memory around registers and heap pointers: what is copied, what is printed, and what must not be touched.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <thread>

#include "except/src/proc_agent/capture_map.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "sysdiag/except/map_fixture.h"

namespace kova::test {
namespace {

constexpr std::uint64_t kPage = EdgedPages::kPage;

class MemoryDump : public testing::Test {
  protected:
    MemoryDump() {
        remove_log_and_box();
        g_kovaExceptLogbuf = text_.data();
        g_heapPrintMaxTime = 0;
    }
    ~MemoryDump() override { g_kovaExceptLogbuf = nullptr; }

    // What a section printed into the log's buffer is.
    template <typename Print>
    std::string printed(Print print) {
        std::uint32_t length = 0;
        EXPECT_EQ(kOk, print(text_.data(), &length));
        return {text_.data(), length};
    }

    std::array<char, 10240> text_{};
};

KovaDumpMemParam around(std::uint64_t value, std::uint32_t before, std::uint32_t after, std::size_t map_size = 4096) {
    return {value, "X7", before, after, 1, 1, static_cast<std::int32_t>(map_size)};
}

std::string hex16(std::uint64_t value) {
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, value);
    return text;
}

TEST_F(MemoryDump, IsClippedToTheReadableMappingAroundTheValue) {
    const EdgedPages pages(2);
    expect_in_child([&] {
        const std::uint64_t start = pages.start();
        const std::uint64_t end = pages.end();
        const struct {
            const char* name;
            std::uint64_t value;
            std::uint32_t before, after, size;
            std::uint64_t first, length;  // 0: nothing, and the destination is cleared
            std::string map;
        } cases[] = {
            {"inside", start + 2000, 768, 1024, 1792, start + 1232, 1792, map_line(start, end, "r--p")},
            {"100 above the start", start + 100, 768, 1024, 1792, start, 1124, map_line(start, end)},
            {"at the start", start, 768, 1024, 1792, start, 1024, map_line(start, end)},
            {"last byte", end - 1, 8, 1024, 1792, end - 9, 9, map_line(start, end)},
            {"all of it", start + 1, 0xFFFFFFFF, 0xFFFFFFFF, 8192, start, 8192, map_line(start, end)},
            {"the end itself", end, 768, 1024, 1792, 0, 0, map_line(start, end)},
            {"below", start - 1, 768, 1024, 1792, 0, 0, map_line(start, end)},
            {"not readable", start + 100, 768, 1024, 1792, 0, 0, map_line(start, end, "-w-p")},
            {"not readable after all", end, 32, 32, 1792, 0, 0, map_line(start, end + kPage)},
            {"longer than the destination", start + 2000, 768, 1024, 1791, 0, 0, map_line(start, end)},
            {"empty", start + 2000, 0, 0, 1792, 0, 0, map_line(start, end)},
        };
        fake_map_file("");
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            write_fake_map(c.map);
            std::array<std::uint8_t, 8192> copy{};
            KovaDumpMemParam param = around(c.value, c.before, c.after);
            EXPECT_EQ(c.length == 0 ? kFailed : kOk, KOVA_DumpRegisterContext(copy.data(), c.size, &param));
            EXPECT_EQ(c.first, param.start);
            EXPECT_EQ(c.length, param.length);
            std::array<std::uint8_t, 8192> expected{};
            if (c.length != 0) std::memcpy(expected.data(), reinterpret_cast<const void*>(c.first), c.length);
            EXPECT_EQ(expected, copy);
        }
        // Above a mapping that ends where addresses do, the end must not wrap.
        write_fake_map("fff0-ffffffffffffffff r--p 0 0:0 0\n");
        KovaSpDumpRange range{};
        const KovaDumpMemParam high = around(0xFFFFFFFFFFFFFFF0U, 16, 4096);
        KOVA_FillSpDumpInfo(&range, &high);
        EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, range.end);
        EXPECT_EQ(31U, range.length);
    });
}

TEST_F(MemoryDump, SectionsHaveTheirExactTextAndEndAtTheFirstUnreadableWord) {
    const EdgedPages pages;
    const std::uint64_t first = pages.end() - 22;  // five words and half of one
    const auto words = [](std::uint64_t at) {
        return "\n0x" + hex16(at) + ":\t0xedecebea 0xf1f0efee 0xf5f4f3f2 0xf9f8f7f6 \n0x" + hex16(at + 16) +
               ":\t0xfdfcfbfa ";
    };
    const auto head = [](std::uint64_t value, std::uint64_t from, std::uint64_t to) {
        return "\n===Dump Register X7[" + hex16(value) + "] in maps(" + hex16(from) + ", " + hex16(to) + ")";
    };
    KovaDumpMemParam copied = around(0x7FFC12345678, 0, 0);
    copied.start = 0x7FFC12345670;
    copied.length = 22;  // the bytes after the last word are not printed
    const auto print_copy = [&](char* t, auto* n) {
        return KOVA_PrintRegMemInfo(&copied, reinterpret_cast<const std::uint8_t*>(first), 22, t, n);
    };
    const auto print_heap = [&](char* t, auto* n) { return KOVA_PrintHeapMemInfo(first, 128, t, n); };
    EXPECT_EQ(head(copied.value, copied.start, copied.start + 22) + words(copied.start), printed(print_copy));
    EXPECT_EQ("\n===Dump Heap in maps(" + hex16(first) + ", " + hex16(first + 128) + ")" + words(first),
              printed(print_heap));
    KovaSpDumpRange range{first, first + 3584, 3584};
    const KovaDumpMemParam live = around(first + 512, 512, 3072);
    const auto print_stack = [&](char* t, auto* n) { return KOVA_PrintRegSpInfo(&range, &live, t, n); };
    EXPECT_EQ(head(first + 512, first, first + 3584) + words(first), printed(print_stack));

    range = {pages.start(), pages.start() + 3584, 3584};  // more text than there is room for
    EXPECT_EQ(10239U, printed(print_stack).size());
    EXPECT_EQ(10239U, std::strlen(text_.data()));
}

TEST_F(MemoryDump, ScansLookAtEveryFourthByteAndStopAt32HeapSections) {
    constexpr std::size_t kSection = 57 + 8 * 65 + 1;
    const EdgedPages heap;
    std::array<std::uint32_t, 72> words{};
    const auto set_pointer = [&](std::size_t word, std::uint64_t value) {
        std::memcpy(&words[word], &value, sizeof value);
    };
    const auto scan = [&](std::size_t length) {
        KOVA_ProcRegContextInHeap(static_cast<std::uint32_t>(length), reinterpret_cast<std::uint8_t*>(words.data()),
                                  heap.start(), heap.end(), text_.data());
    };
    set_pointer(0, heap.start() + 2);  // no multiple of 4
    set_pointer(2, heap.end() + 4);
    set_pointer(5, heap.start());
    scan(27);  // the last one is not whole
    EXPECT_EQ(0U, g_heapPrintMaxTime);
    scan(28);
    EXPECT_EQ(1U, g_heapPrintMaxTime);
    EXPECT_EQ(kSection, log_text().size());
    for (std::size_t word = 0; word + 1 < words.size(); word += 2) set_pointer(word, heap.start() + 4 * word);
    scan(sizeof words);
    scan(sizeof words);
    EXPECT_EQ(32U, g_heapPrintMaxTime);
    EXPECT_EQ(32 * kSection, log_text().size());
    EXPECT_EQ(0U, KOVA_CheckAddrIsInHeapAndPrintText(heap.start() - 4, heap.start(), heap.end(), text_.data()));
}

TEST_F(MemoryDump, ACaptureSearchesTheCopyThatItMadeOfTheMap) {
    const EdgedPages pages;
    expect_in_child([&] {
        const std::string map = map_line(pages.start(), pages.end(), "rw-p", "[heap]") + many_map_lines();
        fake_map_file(map);
        ASSERT_EQ(kOk, write_to_log("before\n"));
        const auto dump = [&] {
            KovaDumpMemParam param = around(pages.start(), 0, 16, map.size());
            std::uint8_t copy[16];
            return KOVA_DumpRegisterContext(copy, sizeof copy, &param);
        };
        begin_capture_map();
        KOVA_DumpMapsFile();
        ASSERT_EQ(kOk, write_to_log("after\n"));
        EXPECT_EQ("before\n" + map + "after\n", log_text());
        write_fake_map("");  // whoever still reads the map file finds nothing
        EXPECT_EQ(map.size(), capture_map_size());
        EXPECT_EQ(kOk, dump());
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        EXPECT_EQ(1U, KOVA_GetHeapStartAndEndInfo(&start, &end, "[heap]"));
        EXPECT_EQ(0U, KovaGetProcMapsSize());
        std::thread([&] {
            EXPECT_EQ(0U, capture_map_size());
            EXPECT_EQ(kFailed, dump());
        }).join();
        // A child measures its own map, whether that is covered or not.
        expect_in_child([&] { EXPECT_NE(map.size(), capture_map_size()); });
        end_capture_map();
        EXPECT_EQ(0U, capture_map_size());
        EXPECT_EQ(kFailed, dump());
    });
}

TEST_F(MemoryDump, ACopyThatIsNotTheWholeMapIsNotSearched) {
    expect_in_child([] {
        fake_map_file(many_map_lines());
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1000, 1000};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
        begin_capture_map();
        KOVA_DumpMapsFile();
        EXPECT_EQ(1000U, log_text().size());
        write_fake_map("");
        EXPECT_EQ(0U, capture_map_size());
        end_capture_map();
    });
}

}  // namespace
}  // namespace kova::test
