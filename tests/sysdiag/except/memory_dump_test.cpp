// Memory around registers and heap pointers: what is copied, what is printed, and what must not be touched.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <utility>

#include "base/signal_scope.h"
#include "except/src/proc_agent/capture_map.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "except/src/proc_agent/memory_reader.h"
#include "except/src/proc_agent/recovery.h"
#include "kova_platform/process_globals.h"
#include "sysdiag/except/map_fixture.h"

namespace {

int g_refusal = 0;        // errno of the next process_vm_readv calls
bool g_intrudes = false;  // a signal comes during the next write

}  // namespace

// In place of the C library's, to play a kernel that will not copy.
extern "C" ssize_t process_vm_readv(pid_t pid, const iovec* local, unsigned long local_count, const iovec* remote,
                                    unsigned long remote_count, unsigned long flags) {
    if (g_refusal != 0) {
        errno = g_refusal;
        return -1;
    }
    return ::syscall(SYS_process_vm_readv, pid, local, local_count, remote, remote_count, flags);
}

// A signal that comes during a write leaves its trace line, whatever this thread is about to write.
extern "C" ssize_t write(int fd, const void* data, std::size_t length) {
    const ssize_t written = ::syscall(SYS_write, fd, data, length);
    if (std::exchange(g_intrudes, false)) static_cast<void>(kova::write_to_log("trace\n"));
    return written;
}

namespace kova::test {
namespace {

constexpr std::uint64_t kPage = EdgedPages::kPage;

class MemoryDump : public testing::Test {
  protected:
    void SetUp() override {
        remove_log();
        g_kovaExceptLogbuf = text_.data();
        g_kovaRegMemory = register_memory_.data();
        g_heapPrintMaxTime = 0;
        g_refusal = 0;
    }
    void TearDown() override {
        g_kovaExceptLogbuf = nullptr;
        g_kovaRegMemory = nullptr;
    }

    std::string printed(std::uint32_t length) const { return {text_.data(), length}; }

    std::array<char, 10240> text_{};
    std::array<std::uint8_t, 1792> register_memory_{};
};

KovaDumpMemParam around(std::uint64_t value, std::uint32_t before, std::uint32_t after, std::size_t map_size = 4096) {
    return {.value = value,
            .name = "X7",
            .before = before,
            .after = after,
            .start = 1,
            .length = 1,
            .mapSize = static_cast<std::int32_t>(map_size)};
}

// One mapping in the map file: the first probe finds it or nothing does.
std::string only(std::uint64_t start, std::uint64_t end, const char* permissions = "rw-p") {
    return map_line(start, end, permissions);
}

TEST_F(MemoryDump, IsClippedToTheReadableMappingAroundTheValue) {
    const EdgedPages pages(2);
    expect_child_succeeds([&] {
        fake_map_file("");
        const std::uint64_t start = pages.start();
        const std::uint64_t end = pages.end();
        const struct {
            const char* name;
            const char* permissions;
            std::uint64_t value;
            std::uint32_t before, after, size;
            Code code;
            std::uint64_t first, length;
        } cases[] = {
            {"inside", "r--p", start + 2000, 768, 1024, 1792, 0, start + 1232, 1792},
            {"100 above the start", "r--p", start + 100, 768, 1024, 1792, 0, start, 1124},
            {"at the start", "r--p", start, 768, 1024, 1792, 0, start, 1024},
            {"last byte", "r--p", end - 1, 8, 1024, 1792, 0, end - 9, 9},
            {"all of it", "r--p", start + 1, 0xFFFFFFFF, 0xFFFFFFFF, 8192, 0, start, 8192},
            {"the end itself", "r--p", end, 768, 1024, 1792, 1, 0, 0},
            {"below", "r--p", start - 1, 768, 1024, 1792, 1, 0, 0},
            {"not readable", "-w-p", start + 100, 768, 1024, 1792, 1, 0, 0},
            {"longer than the destination", "r--p", start + 2000, 768, 1024, 1791, 1, 0, 0},
            {"empty", "r--p", start + 2000, 0, 0, 1792, 1, 0, 0},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            write_fake_map(only(start, end, c.permissions));
            std::array<std::uint8_t, 8192> copy{};
            KovaDumpMemParam param = around(c.value, c.before, c.after);
            EXPECT_EQ(c.code, KOVA_DumpRegisterContext(copy.data(), c.size, &param));
            EXPECT_EQ(c.first, param.start);
            EXPECT_EQ(c.length, param.length);
            const auto* const memory = c.length > 0 ? reinterpret_cast<const void*>(c.first) : copy.data();
            EXPECT_EQ(0, std::memcmp(copy.data(), memory, c.length));
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

TEST_F(MemoryDump, ThatCannotBeReadAfterAllIsAFailureAndLeavesNothing) {
    const EdgedPages pages;
    const int file = ::memfd_create("cut", MFD_CLOEXEC);
    ASSERT_EQ(0, ::ftruncate(file, 2 * kPage));
    void* const cut = ::mmap(nullptr, 2 * kPage, PROT_READ, MAP_SHARED, file, 0);
    ASSERT_EQ(0, ::ftruncate(file, kPage));
    expect_child_succeeds([&] {
        fake_map_file("");
        for (const std::uint64_t start : {pages.start(), reinterpret_cast<std::uint64_t>(cut)}) {
            write_fake_map(only(start, start + 2 * kPage));
            std::array<std::uint8_t, 64> copy;
            copy.fill(0xEE);
            KovaDumpMemParam param = around(start + kPage, 32, 32);
            EXPECT_EQ(kFailed, KOVA_DumpRegisterContext(copy.data(), copy.size(), &param));
            EXPECT_EQ(0U, param.start);
            EXPECT_EQ(0U, param.length);
            EXPECT_EQ((std::array<std::uint8_t, 64>{}), copy);
        }
    });
}

TEST_F(MemoryDump, KernelThatWillNotCopyIsReplacedUnderARecoveryPoint) {
    const EdgedPages pages;
    expect_child_succeeds([&] {
        struct sigaction action {};
        action.sa_handler = [](int) {
            const SignalScope nested;
            recover_if_armed();
            ::_exit(2);
        };
        action.sa_flags = SA_NODEFER;
        ASSERT_EQ(0, ::sigaction(SIGSEGV, &action, nullptr));
        g_refusal = EPERM;
        const SignalScope capture;
        std::array<std::uint8_t, 64> copy{};
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(10U, read_memory(pages.end() - 10, copy));
            EXPECT_EQ(0, std::memcmp(copy.data(), pages.memory() + kPage - 10, 10));
            EXPECT_EQ(0U, read_memory(pages.end(), copy));
            EXPECT_EQ(64U, read_memory(pages.start(), copy));
        }
    });
}

TEST_F(MemoryDump, SectionsHaveTheirExactText) {
    alignas(16)
        const std::uint8_t bytes[23] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0xDD, 0xCC, 0xBB, 0xAA};
    const KovaDumpMemParam param{.value = 0x7FFC12345678,
                                 .name = "LR",
                                 .before = 0,
                                 .after = 0,
                                 .start = 0x7FFC12345670,
                                 .length = 23,  // the three bytes after the last word are not printed
                                 .mapSize = 0};
    std::string expected =
        ">\n===Dump Register LR[00007ffc12345678] in maps(00007ffc12345670, 00007ffc12345687)"
        "\n0x00007ffc12345670:\t0x04030201 0x08070605 0x0c0b0a09 0x100f0e0d "
        "\n0x00007ffc12345680:\t0xaabbccdd ";
    text_[0] = '>';
    std::uint32_t length = 1;
    EXPECT_EQ(kOk, KOVA_PrintRegMemInfo(&param, bytes, sizeof bytes, text_.data(), &length));
    EXPECT_EQ(expected, printed(length));

    length = 10235;
    EXPECT_EQ(kOk, KOVA_PrintRegMemInfo(&param, bytes, sizeof bytes, text_.data(), &length));
    EXPECT_EQ(10239U, length);
    EXPECT_STREQ("\n===", &text_[10235]);
}

// "X" padded to 16 hexadecimal digits.
std::string hex16(std::uint64_t value) {
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, value);
    return text;
}

TEST_F(MemoryDump, LiveSectionsEndAtTheFirstUnreadableWord) {
    const EdgedPages pages;
    const std::uint64_t first = pages.end() - 22;  // five words and half of one
    const std::string expected_words = "\n0x" + hex16(first) + ":\t0xedecebea 0xf1f0efee 0xf5f4f3f2 0xf9f8f7f6 \n0x" +
                                       hex16(first + 16) + ":\t0xfdfcfbfa ";
    std::uint32_t length = 0;
    EXPECT_EQ(kOk, KOVA_PrintHeapMemInfo(first, 128, text_.data(), &length));
    EXPECT_EQ("\n===Dump Heap in maps(" + hex16(first) + ", " + hex16(first + 128) + ")" + expected_words,
              printed(length));

    const KovaSpDumpRange range{first, first + 3584, 3584};
    const KovaDumpMemParam param = around(first + 512, 512, 3072);
    length = 0;
    EXPECT_EQ(kOk, KOVA_PrintRegSpInfo(&range, &param, text_.data(), &length));
    EXPECT_EQ("\n===Dump Register X7[" + hex16(first + 512) + "] in maps(" + hex16(first) + ", " + hex16(first + 3584) +
                  ")" + expected_words,
              printed(length));
}

TEST_F(MemoryDump, AFullStackSectionIsCutAt10239Characters) {
    const EdgedPages pages;
    const KovaSpDumpRange range{pages.start(), pages.start() + 3584, 3584};
    const KovaDumpMemParam param = around(pages.start() + 512, 512, 3072);
    std::uint32_t length = 0;
    EXPECT_EQ(kOk, KOVA_PrintRegSpInfo(&range, &param, text_.data(), &length));
    EXPECT_EQ(10239U, length);
    EXPECT_EQ(10239U, std::strlen(text_.data()));
}

TEST_F(MemoryDump, HeapBlocksStayWithinTheHeap) {
    constexpr std::uint64_t kStart = 0x10000;
    constexpr std::uint64_t kEnd = 0x20000;
    const struct {
        std::uint64_t address;
        std::uint32_t wanted;
        std::uint64_t lower, upper, start;
        std::uint32_t length;
    } cases[] = {
        {kStart + 64, 128, kStart, kEnd, kStart, 128},
        {kStart + 68, 128, kStart, kEnd, kStart + 4, 128},
        {kEnd - 20, 128, kStart, kEnd, kEnd - 84, 84},
        {64, 128, 0, kEnd, 0, 128},
        {kStart, 128, kEnd, kStart, kEnd, 0},  // bounds the wrong way round
        {~0ULL, 0xFFFFFFFFU, kStart, ~0ULL, ~0ULL - 64, 64},
    };
    for (const auto& c : cases) {
        std::uint64_t start = 0;
        std::uint32_t length = c.wanted;
        KOVA_ProcGetDumpStartAddAndLen(c.address, c.lower, c.upper, &start, &length);
        EXPECT_EQ(c.start, start) << std::hex << c.address;
        EXPECT_EQ(c.length, length) << std::hex << c.address;
    }
}

TEST_F(MemoryDump, ScansCountAndStopAt32HeapSections) {
    const EdgedPages heap;
    std::array<std::uint32_t, 64> words{};
    const auto scan = [&](std::uint32_t length, char* text) {
        KOVA_ProcRegContextInHeap(length, reinterpret_cast<const std::uint8_t*>(words.data()), heap.start(), heap.end(),
                                  text);
    };
    const auto set_pointer = [&](std::size_t word, std::uint64_t value) {
        std::memcpy(&words[word], &value, sizeof value);
    };
    set_pointer(0, heap.start() + 2);  // no multiple of 4
    set_pointer(3, heap.end());        // between two eight-byte places
    set_pointer(6, heap.end() + 4);
    scan(sizeof words, nullptr);
    EXPECT_EQ(1U, g_heapPrintMaxTime);
    EXPECT_NE(0, ::access(kLogPath, F_OK));

    set_pointer(0, heap.start());
    scan(7, text_.data());
    EXPECT_EQ(1U, g_heapPrintMaxTime);
    scan(8, text_.data());
    EXPECT_EQ(2U, g_heapPrintMaxTime);
    const std::string section = log_text();
    EXPECT_EQ(0U,
              section.find("\n===Dump Heap in maps(" + hex16(heap.start()) + ", " + hex16(heap.start() + 128) + ")\n"));
    EXPECT_EQ(57U + 8 * 65 + 1, section.size());

    for (std::size_t word = 0; word + 1 < words.size(); word += 2) set_pointer(word, heap.start() + 4 * word);
    scan(sizeof words, text_.data());
    EXPECT_EQ(32U, g_heapPrintMaxTime);
    EXPECT_EQ(31 * section.size(), log_text().size());
    scan(sizeof words, text_.data());
    EXPECT_EQ(31 * section.size(), log_text().size());
    EXPECT_EQ(1U, KOVA_CheckAddrIsInHeapAndPrintText(heap.start(), heap.start(), heap.end(), text_.data()));
    EXPECT_EQ(0U, KOVA_CheckAddrIsInHeapAndPrintText(heap.start() - 4, heap.start(), heap.end(), text_.data()));
    EXPECT_EQ(33U, g_heapPrintMaxTime);
}

TEST_F(MemoryDump, TheHeapIsFoundByNameLineByLine) {
    const std::string long_name(600, 'n');
    const std::string anonymous = map_line(0x1000, 0x2000, "rw-p");
    const struct {
        const char* name;
        std::string map;
        std::uint32_t found;
        std::uint64_t start;
    } cases[] = {
        {"after lines without a name", anonymous + anonymous + map_line(0x5000, 0x6000, "rw-p", "[heap]"), 1, 0x5000},
        {"the first of two", map_line(1, 2, "rw-p", "[heap]") + map_line(3, 4, "rw-p", "[heap]"), 1, 1},
        {"last line not ended", anonymous + "7000-8000 rw-p 0 0:0 0     [heap]", 1, 0x7000},
        {"behind a line longer than a piece", map_line(1, 2, "r--p", long_name) + map_line(5, 6, "rw-p", "[heap]"), 1,
         5},
        {"a byte lost behind a piece without an end", std::string(511, 'n') + "15-16 rw-p 0 0:0 0 [heap]\n", 1, 5},
        {"another name", map_line(1, 2, "rw-p", "[heap]2") + map_line(1, 2, "rw-p", "[stack]"), 0, 0},
        {"the name in another field", "1-2 rw-p 0 0:0 [heap]\n1-2 [heap] 0 0:0 0 [stack]\n", 0, 0},
        {"nothing at all", "", 0, 0},
    };
    expect_child_succeeds([&] {
        fake_map_file("");
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            write_fake_map(c.map);
            EXPECT_EQ(c.map.size(), KovaGetProcMapsSize());
            std::uint64_t start = 0;
            std::uint64_t end = 0;
            EXPECT_EQ(c.found, KOVA_GetHeapStartAndEndInfo(&start, &end, "[heap]"));
            EXPECT_EQ(c.start, start);
            EXPECT_EQ(0U, KOVA_GetHeapStartAndEndInfo(&start, &end, ""));
        }
    });
}

TEST_F(MemoryDump, RegistersAreReportedInOrderEachWithItsHeapBlocks) {
    const EdgedPages pages;
    const EdgedPages heap;
    const std::uint64_t pointer = heap.start();
    std::memset(pages.memory(), 0, kPage);
    std::memcpy(pages.memory(), &pointer, sizeof pointer);
    KovaExceptInfo record{};
    record.machineContext.registers.x[0] = pages.end();  // no memory there
    record.machineContext.registers.x[28] = pages.start();
    record.machineContext.registers.x[29] = pages.start();  // has a section elsewhere
    expect_child_succeeds([&] {
        const std::string map =
            only(pages.start(), pages.start() + 16) + map_line(heap.start(), heap.end(), "rw-p", "[heap]");
        fake_map_file(map);
        KOVA_PrintRegisterInfo2log(&record, static_cast<std::uint32_t>(map.size()), text_.data());
        const std::string p = hex16(pages.start());
        const std::string h = hex16(heap.start());
        const std::string words = hex16(pointer);
        const std::string expected = "\n===Dump Register X28[" + p + "] in maps(" + p + ", " +
                                     hex16(pages.start() + 16) + ")\n0x" + p + ":\t0x" + words.substr(8) + " 0x" +
                                     words.substr(0, 8) + " 0x00000000 0x00000000 \n\n===Dump Heap in maps(" + h +
                                     ", " + hex16(heap.start() + 128) + ")\n0x" + h + ":\t0x03020100 0x07060504 ";
        EXPECT_EQ(expected, log_text().substr(0, expected.size()));
        EXPECT_EQ(expected.size() + 22 + 7 * 65 + 1, log_text().size());
        EXPECT_EQ(1U, g_heapPrintMaxTime);
        g_kovaRegMemory = nullptr;
        KOVA_PrintRegisterInfo2log(&record, static_cast<std::uint32_t>(map.size()), text_.data());
        EXPECT_EQ(expected.size() + 22 + 7 * 65 + 1, log_text().size());
    });
}

TEST_F(MemoryDump, ACaptureSearchesTheCopyThatItMadeOfTheMap) {
    const EdgedPages pages;
    expect_child_succeeds([&] {
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
        EXPECT_EQ(0, end_of_child(start_child([&] { EXPECT_NE(map.size(), capture_map_size()); })));
        end_capture_map();
        EXPECT_EQ(0U, capture_map_size());
        EXPECT_EQ(kFailed, dump());
    });
}

TEST_F(MemoryDump, AnIncompleteCopyIsNotSearched) {
    expect_child_succeeds([] {
        const std::string map = many_map_lines();
        fake_map_file(map);
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1000, 1000};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
        begin_capture_map();
        KOVA_DumpMapsFile();
        EXPECT_EQ(map.substr(0, 1000), log_text());
        EXPECT_EQ(map.size(), capture_map_size());
        end_capture_map();
    });
}

TEST_F(MemoryDump, ACopyThatATraceLineFellIntoIsNotSearched) {
    expect_child_succeeds([] {
        fake_map_file(many_map_lines());
        begin_capture_map();
        g_intrudes = true;
        KOVA_DumpMapsFile();
        EXPECT_EQ(256U, log_text().find("trace\n"));
        write_fake_map("");
        EXPECT_EQ(0U, capture_map_size());
        end_capture_map();
    });
}

}  // namespace
}  // namespace kova::test
