#include "made_up_crash.h"

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "kova/exception_capture.h"
#include "kova/memory_map.h"

namespace kova::bench {
namespace {

constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kHeapBlockSize = 4096;  // below what the C library maps apart

constexpr int kGeneralRegisters[] = {REG_RDI, REG_RSI, REG_RDX, REG_RCX, REG_R8,  REG_R9,  REG_RAX,
                                     REG_R10, REG_R11, REG_RBX, REG_R12, REG_R13, REG_R14, REG_R15};
constexpr int kOtherRegisters[] = {REG_RSP, REG_RIP, REG_RBP};
constexpr std::size_t kTargets = std::size(kGeneralRegisters) + std::size(kOtherRegisters);
static_assert(std::size(kGeneralRegisters) == kGeneralSections);

}  // namespace

std::size_t count_mappings() {
    std::ifstream map("/proc/self/maps");
    return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(map), {}, '\n'));
}

// Neighbouring pages with different rights cannot be one mapping.
MadeUpCrash::MadeUpCrash(std::size_t mappings)
    : pages_(std::max(mappings - std::min(mappings, count_mappings()), kTargets)),
      memory_(static_cast<unsigned char*>(
          ::mmap(nullptr, pages_ * kPageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
      heap_block_(std::make_unique<char[]>(kHeapBlockSize)) {
    if (memory_ == MAP_FAILED) std::abort();
    fill_pages();
    for (std::size_t page = 0; page < pages_; page += 2) {
        if (::mprotect(memory_ + page * kPageSize, kPageSize, PROT_READ) != 0) std::abort();
    }
    mappings_ = count_mappings();
    point_registers_into_pages();
    info_.si_signo = SIGQUIT;
    info_.si_code = SI_USER;
    info_.si_pid = ::getpid();
}

MadeUpCrash::~MadeUpCrash() {
    ::munmap(memory_, pages_ * kPageSize);
}

unsigned char* MadeUpCrash::page_of(std::size_t index) const {
    return memory_ + index * (pages_ / kTargets) * kPageSize;
}

// Three heap pointers a page, so that the scan for them has to go through eleven of the dumped pages.
void MadeUpCrash::fill_pages() {
    for (std::size_t target = 0; target < kTargets; ++target) {
        unsigned char* const page = page_of(target);
        std::memset(page, 0x5A, kPageSize);
        for (const std::size_t offset : {1536U, 2048U, 3000U}) {
            const char* const pointer = heap_block_.get() + 1024;
            std::memcpy(page + offset, &pointer, sizeof pointer);
        }
    }
}

void MadeUpCrash::point_registers_into_pages() {
    std::size_t target = 0;
    const auto point = [&](int index) {
        context_.uc_mcontext.gregs[index] = reinterpret_cast<greg_t>(page_of(target++) + kPageSize / 2);
    };
    for (const int index : kGeneralRegisters) point(index);
    for (const int index : kOtherRegisters) point(index);
}

void MadeUpCrash::start_afresh() {
    // Fails only where there is no log yet.
    static_cast<void>(::truncate(kLogPath, 0));
    g_heapPrintMaxTime = 0;
}

void MadeUpCrash::capture() {
    KOVA_SignalInfoRecordHandler(SIGQUIT, &info_, &context_);
}

}  // namespace kova::bench
