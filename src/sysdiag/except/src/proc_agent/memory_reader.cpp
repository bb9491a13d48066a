// Reading own memory; see memory_reader.h.
//
// The kernel does the copy: a page of a truncated file is "r--" in the map file and still raises SIGBUS. Containers
// often forbid the call; then it is a plain copy under a recovery point, which outside the record handler recovers
// nothing.
//
// Signal context: all of it.
#include "except/src/proc_agent/memory_reader.h"

#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>

#include "except/src/proc_agent/recovery.h"

#include "base/signal_path.h"

namespace kova {
namespace {

// Byte by byte, because where it stops must be known, and out of the sanitizers' sight, because the memory belongs to
// anybody: a red zone is no reason to stop.
__attribute__((no_sanitize("address", "undefined", "thread"))) void copy_bytes(const volatile std::uint8_t* from,
                                                                               std::span<std::uint8_t> out,
                                                                               volatile std::size_t& done) {
    while (done < out.size()) {
        out.data()[done] = from[done];
        done = done + 1;
    }
}

[[gnu::noinline]] std::size_t plain_copy(std::uint64_t address, std::span<std::uint8_t> out) {
    volatile std::size_t done = 0;
    auto step = [&] { copy_bytes(reinterpret_cast<const volatile std::uint8_t*>(address), out, done); };
    // A fault has stopped the copy at `done`, which is all there is to know.
    static_cast<void>(run_recoverable(step));
    return done;
}

}  // namespace

std::size_t read_memory(std::uint64_t address, std::span<std::uint8_t> out) {
    std::size_t done = 0;
    while (done < out.size()) {
        const std::size_t left = out.size() - done;
        const iovec local{out.data() + done, left};
        const iovec remote{reinterpret_cast<void*>(address + done), left};
        const ssize_t count = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            continue;
        }
        // Anything but a bad address means that the kernel will not copy for us at all.
        if (count < 0 && errno != EFAULT) done += plain_copy(address + done, {out.data() + done, left});
        break;
    }
    return done;
}

}  // namespace kova
