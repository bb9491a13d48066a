#include "crash_helper_modes.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <thread>

void die_in_a_sandbox(int number) {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{.len = sizeof code / sizeof code[0], .filter = code};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) ::_exit(4);
    if (number == SIGSYS) ::syscall(SYS_openat, -1, "", 0);
    ::raise(number);
}

namespace {

bool file_size_signal_is_ignored() {
    std::FILE* const status = std::fopen("/proc/self/status", "r");
    unsigned long long ignored = 0;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) std::sscanf(line, "SigIgn: %llx", &ignored);
    std::fclose(status);
    return (ignored >> (SIGXFSZ - 1) & 1) != 0;
}

}  // namespace

void fault_that_does_not_repeat(int) {
    void* const page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::thread repair([page] {
        // The host ignores this signal from the beginning of a capture on; without a host there is nothing to wait for.
        while (!file_size_signal_is_ignored()) ::poll(nullptr, 0, 1);
        ::mprotect(page, 4096, PROT_READ | PROT_WRITE);
    });
    *static_cast<volatile int*>(page) = 1;
    for (;;) ::pause();
}
