// Deaths with registers, stacks and program counters that lead to memory which cannot be trusted.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "host/crash_helper_modes.h"

namespace {

std::size_t page_bytes() {
    return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::uint8_t* map_pages(std::size_t pages, int protection) {
    void* const memory =
        ::mmap(nullptr, pages * page_bytes(), protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) std::_Exit(kSetUpFailed);
    return static_cast<std::uint8_t*>(memory);
}

// x0 to x28 hold the value when the illegal instruction comes. Registers that the machine reserves or that the host's
// report does not name are left alone.
[[noreturn]] void die_with_registers(std::uint64_t value) {
#if defined(__aarch64__)
    asm volatile(
        "mov x0, %0\n"
        "mov x1, x0\nmov x2, x0\nmov x3, x0\nmov x4, x0\nmov x5, x0\nmov x6, x0\nmov x7, x0\nmov x8, x0\n"
        "mov x9, x0\nmov x10, x0\nmov x11, x0\nmov x12, x0\nmov x13, x0\nmov x14, x0\nmov x15, x0\nmov x16, x0\n"
        "mov x17, x0\nmov x18, x0\nmov x19, x0\nmov x20, x0\nmov x21, x0\nmov x22, x0\nmov x23, x0\nmov x24, x0\n"
        "mov x25, x0\nmov x26, x0\nmov x27, x0\nmov x28, x0\n"
        ".inst 0\n"
        :
        : "r"(value));
#else
    asm volatile(
        "mov %0, %%rdi\n"
        "mov %%rdi, %%rsi\nmov %%rdi, %%rdx\nmov %%rdi, %%rcx\nmov %%rdi, %%r8\nmov %%rdi, %%r9\nmov %%rdi, %%rax\n"
        "mov %%rdi, %%r10\nmov %%rdi, %%r11\nmov %%rdi, %%rbx\nmov %%rdi, %%r12\nmov %%rdi, %%r13\n"
        "mov %%rdi, %%r14\nmov %%rdi, %%r15\n"
        "ud2\n"
        :
        : "r"(value));
#endif
    std::_Exit(5);
}

[[noreturn]] void die_with_stack(std::uint64_t stack, std::uint64_t frame) {
#if defined(__aarch64__)
    asm volatile("mov sp, %0\nmov x29, %1\nmov x30, %1\n.inst 0\n" : : "r"(stack), "r"(frame));
#else
    asm volatile("mov %0, %%rsp\nmov %1, %%rbp\nud2\n" : : "r"(stack), "r"(frame));
#endif
    std::_Exit(5);
}

std::uint64_t address_of(const void* pointer) {
    return reinterpret_cast<std::uint64_t>(pointer);
}

void truncated_file(int) {
    char name[] = "/dev/shm/crash_helperXXXXXX";
    const int fd = ::mkstemp(name);
    ::unlink(name);
    if (::ftruncate(fd, static_cast<off_t>(4 * page_bytes())) != 0) std::_Exit(kSetUpFailed);
    auto* const file =
        static_cast<std::uint8_t*>(::mmap(nullptr, 4 * page_bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    std::memset(file, 'x', 4 * page_bytes());
    if (::ftruncate(fd, static_cast<off_t>(page_bytes())) != 0) std::_Exit(kSetUpFailed);
    die_with_registers(address_of(file + 2 * page_bytes()));
}

void forbidden_page(int) {
    die_with_registers(address_of(map_pages(1, PROT_NONE) + 64));
}

// Nothing stands behind them: the page after is unmapped again.
void last_bytes(int number) {
    std::uint8_t* const pages = map_pages(2, PROT_READ | PROT_WRITE);
    std::memset(pages, 'l', page_bytes());
    ::munmap(pages + page_bytes(), page_bytes());
    die_with_registers(address_of(pages + page_bytes() - static_cast<unsigned>(number)));
}

void vanishing_mapping(int) {
    std::uint8_t* const page = map_pages(1, PROT_READ | PROT_WRITE);
    static std::atomic<int> rounds{0};
    std::thread([page] {
        for (;;) {
            ::munmap(page, page_bytes());
            void* const again =
                ::mmap(page, page_bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
            if (again != page) std::_Exit(kSetUpFailed);
            ++rounds;
        }
    }).detach();
    while (rounds < 10) continue;
    die_with_registers(address_of(page + 8));
}

bool file_size_signal_is_ignored() {
    std::FILE* const status = std::fopen("/proc/self/status", "r");
    unsigned long long ignored = 0;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) std::sscanf(line, "SigIgn: %llx", &ignored);
    std::fclose(status);
    return (ignored >> (SIGXFSZ - 1) & 1) != 0;
}

// Another thread has removed the cause of the fault by the time that the handler returns.
void vanishing_fault(int) {
    std::uint8_t* const page = map_pages(1, PROT_NONE);
    std::thread([page] {
        // The host ignores this signal from the beginning of a capture on; without a host there is nothing to wait for.
        while (!file_size_signal_is_ignored()) ::poll(nullptr, 0, 1);
        ::mprotect(page, page_bytes(), PROT_READ | PROT_WRITE);
    }).detach();
    *static_cast<volatile std::uint8_t*>(page) = 1;
    for (;;) ::pause();
}

// Frame pointers and return addresses that lead to heap, stack, code, nowhere and back to themselves.
void smashed_stack(int) {
    auto* const words = reinterpret_cast<std::uint64_t*>(map_pages(4, PROT_READ | PROT_WRITE));
    const std::size_t count = 4 * page_bytes() / sizeof *words;
    const std::uint64_t garbage[] = {0x4141414141414141,
                                     0xFFFFFFFFFFFFFFF8,
                                     address_of(words) + 8,
                                     1,
                                     reinterpret_cast<std::uint64_t>(&map_pages),
                                     0x10,
                                     address_of(garbage),
                                     0};
    for (std::size_t i = 0; i < count; ++i) words[i] = garbage[i * 2654435761U / 7 % std::size(garbage)];
    die_with_stack(address_of(words + count / 2), address_of(words + count / 2 + 3));
}

void stack_pointer_nowhere(int) {
    die_with_stack(0x10000, 0xDEADBEEFDEADBEE8);
}

[[noreturn]] void jump_to(std::uint64_t address) {
    reinterpret_cast<void (*)()>(address)();
    std::_Exit(5);
}

void jump_to_no_mapping(int) {
    std::uint8_t* const page = map_pages(1, PROT_READ);
    ::munmap(page, page_bytes());
    jump_to(address_of(page) + 16);
}

void jump_to_data(int) {
    jump_to(address_of(map_pages(1, PROT_READ | PROT_WRITE)) + 16);
}

// Adjacent pages of different protection are mappings of their own.
void many_mappings(int number) {
    std::uint8_t* const pages = map_pages(static_cast<std::size_t>(number), PROT_READ);
    for (int i = 0; i < number; i += 2) {
        if (::mprotect(pages + static_cast<std::size_t>(i) * page_bytes(), page_bytes(), PROT_NONE) != 0)
            std::_Exit(kSetUpFailed);
    }
    die_with_registers(address_of(pages + page_bytes() * 3 / 2));
}

constexpr Mode kModes[] = {
    {"truncated-file", truncated_file},
    {"forbidden-page", forbidden_page},
    {"last-bytes", last_bytes},
    {"vanishing-mapping", vanishing_mapping},
    {"vanishing-fault", vanishing_fault},
    {"smashed-stack", smashed_stack},
    {"stack-pointer-nowhere", stack_pointer_nowhere},
    {"jump-to-no-mapping", jump_to_no_mapping},
    {"jump-to-data", jump_to_data},
    {"many-mappings", many_mappings},
};

}  // namespace

std::span<const Mode> memory_modes() {
    return kModes;
}
