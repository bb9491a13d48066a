#include "bare_capture.h"

#include <sys/syscall.h>
#include <sys/uio.h>
#include <iterator>
#include <string_view>

#include "bare_files.h"
#include "made_up_crash.h"

namespace kova::bench {
namespace {

constexpr std::string_view kSectionStart = "\n===";
constexpr std::string_view kHeapSection = "\n===Dump Heap";
constexpr std::size_t kLinesBeforeMap = 3;
constexpr std::size_t kMapPiece = 256;
constexpr std::size_t kNameReads = 5;  // own and sender's name in trace line and record, own in the early lines
constexpr std::size_t kHeapBytes = 128;
constexpr std::size_t kRegisters = 29;        // x0 to x28, most of which hold no address
constexpr std::size_t kSearchedBytes = 8192;  // of the map's copy, in a search

// Bytes below and above the value that are copied: of a general register, and of sp, pc and fp for the record.
struct Around {
    std::size_t below;
    std::size_t above;
};
constexpr Around kGeneral{768, 1024};
constexpr Around kSpRecord{512, 1024};
constexpr Around kPcRecord{512, 512};
constexpr Around kFpRecord{256, 256};
constexpr Around kSpLive{512, 2048};  // to the end of its page

void write_piece(std::string_view text) {
    const int log = open_locked(kLogPath, O_APPEND);
    static_cast<void>(!::write(log, text.data(), text.size()));
    unlock_close(log);
}

void read_name() {
    static const std::string kPath = proc_path("comm");
    char name[32];
    const int file = ::open(kPath.c_str(), O_RDONLY | O_NOFOLLOW);
    static_cast<void>(!::read(file, name, sizeof name));
    ::close(file);
}

// Answers a descriptor of the log, in which the copy begins at *first.
int copy_map(off_t* first) {
    static const std::string kMergedPath = proc_path("maps_merge");
    static const std::string kPath = proc_path("maps");
    struct stat status {};
    ::stat(kMergedPath.c_str(), &status);
    const int map = ::open(kPath.c_str(), O_RDONLY | O_NOFOLLOW);
    ::fstat(map, &status);
    const int log = open_locked(kLogPath, O_APPEND);
    *first = ::lseek(log, 0, SEEK_END);
    char piece[kMapPiece];
    for (ssize_t count = 0; (count = ::read(map, piece, sizeof piece)) > 0;) {
        static_cast<void>(!::write(log, piece, static_cast<std::size_t>(count)));
    }
    ::fstat(log, &status);
    const int copy = ::fcntl(log, F_DUPFD_CLOEXEC, 3);
    unlock_close(log);
    ::close(map);
    return copy;
}

void search_copy(int copy, off_t first) {
    char text[kSearchedBytes];
    static_cast<void>(::getpid());
    static_cast<void>(!::pread(copy, text, sizeof text, first));
}

void copy_memory(const unsigned char* address, std::size_t length) {
    unsigned char copy[4096];
    const iovec local{copy, length};
    const iovec remote{const_cast<unsigned char*>(address), length};
    ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
}

void copy_around(const unsigned char* value, Around around) {
    copy_memory(value - around.below, around.below + around.above);
}

}  // namespace

BareCapture::BareCapture(const std::string& log, const ucontext_t& context) : record_(sizeof(KovaExceptInfo), '\0') {
    std::size_t at = 0;
    for (std::size_t line = 0; line < kLinesBeforeMap; ++line) {
        const std::size_t end = log.find('\n', at) + 1;
        lines_.push_back(log.substr(at, end - at));
        at = end;
    }
    // Each section begins with a line feed and is followed by one that is a piece of its own.
    for (at = log.find(kSectionStart, at); at != log.npos;) {
        const std::size_t next = log.find(kSectionStart, at + 1);
        sections_.push_back(log.substr(at, (next == log.npos ? log.size() : next) - at - 1));
        at = next;
    }
    for (const int index : {REG_RDI, REG_RSI, REG_RDX, REG_RCX, REG_R8, REG_R9, REG_RAX, REG_R10, REG_R11, REG_RBX,
                            REG_R12, REG_R13, REG_R14, REG_R15, REG_RSP, REG_RIP, REG_RBP}) {
        ranges_.push_back(reinterpret_cast<unsigned char*>(context.uc_mcontext.gregs[index]));
    }
}

void BareCapture::run() const {
    for (std::size_t name = 0; name < kNameReads; ++name) read_name();
    for (const std::string& line : lines_) write_piece(line);
    off_t first = 0;
    const int copy = copy_map(&first);
    static_cast<void>(::syscall(SYS_gettid));
    search_copy(copy, first);  // for the live range around sp
    const unsigned char* const* const others = &ranges_[kGeneralSections];
    constexpr Around kRecord[] = {kSpRecord, kPcRecord, kFpRecord};
    for (std::size_t i = 0; i < std::size(kRecord); ++i) {
        search_copy(copy, first);
        copy_around(others[i], kRecord[i]);
    }
    for (std::size_t i = 0; i < kRegisters; ++i) {
        if (i < kGeneralSections) {
            search_copy(copy, first);
            copy_around(ranges_[i], kGeneral);
        } else {
            static_cast<void>(::getpid());
        }
    }
    copy_around(others[0], kSpLive);
    ::close(copy);
    for (const std::string& section : sections_) {
        if (section.starts_with(kHeapSection)) copy_memory(ranges_[0], kHeapBytes);
        static_cast<void>(::getpid());
        write_piece(section);
        write_piece("\n");
    }
    append_record(record_.data());
}

}  // namespace kova::bench
