// The black box when system calls fail, when something else stands at its path, and when its writer is killed.
//
// The C library's calls are replaced here, as the agent sees them: armed, a chosen call of a chosen kind fails, or the
// process is killed at the n-th call of any kind.
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdarg>
#include <string_view>

#include "sysdiag/except/box_fixture.h"

namespace {

struct Fault {
    std::string_view call;  // which kind of call; empty: none
    int at = 1;             // the first of its kind that fails
    int times = 1;          // how many in a row
    int error = EIO;
    bool short_write = false;
    bool unlink = false;  // the call succeeds, but the path is removed before it
};
Fault g_fault;
int g_seen = 0;
int g_kill_at = 0;  // 0: never
int g_calls = 0;
int g_lowest_fd = 1000;
int g_allocations = 0;
bool g_no_memory = false;
std::string g_command;

// Called at every replaced call. True when this one is to fail.
bool fails(std::string_view call) {
    if (g_kill_at != 0 && ++g_calls == g_kill_at) ::syscall(SYS_kill, ::syscall(SYS_getpid), SIGKILL);
    if (g_fault.call != call) return false;
    ++g_seen;
    if (g_seen < g_fault.at || g_seen >= g_fault.at + g_fault.times) return false;
    errno = g_fault.error;
    return true;
}

}  // namespace

extern "C" {

int ftruncate(int fd, off_t length) noexcept {
    g_lowest_fd = std::min(g_lowest_fd, fd);
    return fails("ftruncate") ? -1 : static_cast<int>(::syscall(SYS_ftruncate, fd, length));
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    return fails("lseek") ? -1 : ::syscall(SYS_lseek, fd, offset, whence);
}

ssize_t read(int fd, void* buffer, size_t length) {
    return fails("read") ? -1 : ::syscall(SYS_read, fd, buffer, length);
}

ssize_t write(int fd, const void* data, size_t length) {
    if (fails("write")) {
        if (!g_fault.short_write) return -1;
        length /= 2;
    }
    return ::syscall(SYS_write, fd, data, length);
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto* lock = static_cast<const struct flock*>(argument);
    if (command == F_SETLKW) {
        if (lock->l_type != F_WRLCK || lock->l_whence != SEEK_SET || lock->l_start != 0 || lock->l_len != 0) ::abort();
        if (fails("lock")) {
            if (!g_fault.unlink) return -1;
            ::unlink(kova::test::kBoxPath);
        }
    } else if (command == F_SETLK && lock->l_type == F_UNLCK && fails("unlock")) {
        return -1;
    }
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

int remove(const char* path) noexcept {
    if (fails("remove")) return -1;
    return g_fault.call == "keep" ? 0 : ::unlink(path) == 0 ? 0 : ::rmdir(path);
}

uint32_t KovaSystemCmd(const char* command) {
    g_command = command;
    return 0;
}

void* KovaBaseMalloc(uint32_t, uint32_t kind, uint32_t size, const char* tag, uint32_t) {
    ++g_allocations;
    if (kind != 1 || std::string_view(tag) != "kova_box") ::abort();
    return g_no_memory || size == 0 ? nullptr : ::malloc(size);
}

}  // extern "C"

namespace kova::test {
namespace {

class BoxFaults : public BlackBox {
  protected:
    void SetUp() override {
        disarm();
        BlackBox::SetUp();
    }
    void TearDown() override { disarm(); }

    static void arm(const Fault& fault) {
        g_fault = fault;
        g_seen = 0;
    }
    static void disarm() {
        arm({});
        g_no_memory = false;
        g_allocations = 0;
        g_command.clear();
    }

    static std::uint32_t do_append() { return append(0, 0xAA); }
    static std::uint32_t do_rewrite() {
        const Bytes data = record(0, 0xBB);
        return KOVA_BoxRefresh(0, data.data(), kRecordBytes[0], 0);
    }
    static std::uint32_t do_read() { return read_newest(0, 0, 5).code; }
    static std::uint32_t do_read_slots() { return read_slots(0, 0, 5).code; }
    static std::uint32_t do_reset() { return KOVA_BoxReset(0); }
};

TEST_F(BoxFaults, EachFailureHasItsCodeAndLosesNothing) {
    constexpr std::uint32_t kTruncateCode = 0xFFFFFFF8;
    const struct {
        const char* name;
        std::uint32_t (*operation)();
        Fault fault;
        std::uint32_t code;
        std::string_view message;  // the last one; empty: there is none
    } cases[] = {
        {"append",
         do_append,
         {"ftruncate", 1, 1, ENOSPC},
         33,
         "[Exception] ftruncate kova blackbox unsuccessfully, errno = 28"},
        {"append", do_append, {"lock", 1, 1, ENOLCK}, 54, "[Exception] KOVA_BoxFileLock unsuccessfully, retValue = 5"},
        {"append", do_append, {"lseek", 1}, 615, "[Exception] KOVA_BoxGetHead unsuccessfully, retValue = 61"},
        {"append", do_append, {"read", 2}, 726, "[Exception] KOVA_BoxGetNodeHead unsuccessfully, retValue = 72"},
        {"append", do_append, {"lseek", 3}, 67, "[Exception] Write box data unsuccessfully, retValue = 6"},
        {"append",
         do_append,
         {.call = "write", .short_write = true},
         87,
         "[Exception] Write box data unsuccessfully, retValue = 8"},
        {"append", do_append, {"write", 2}, 8, "[Exception] Write box node head unsuccessfully, retValue = 8"},
        {"rewrite", do_rewrite, {"lock"}, 1, ""},
        {"rewrite", do_rewrite, {"write"}, 1, "[Exception]write databuf unsuccessfully, cnt = -1, errno = 5."},
        {"read", do_read, {"lock"}, 53, ""},
        {"read", do_read, {"read", 1}, 714, "[Exception]para is invalid."},
        {"read", do_read, {"lseek", 2}, 625, "[Exception]KOVA_BoxReadRecord unsuccessfully, ret = 6."},
        {"slots", do_read_slots, {"lock"}, 1, ""},
        {"slots", do_read_slots, {"read", 2}, 1, "[Exception]KOVA_BoxReadRecord unsuccessfully, ret = 7."},
        {"reset", do_reset, {"lock"}, 53, ""},
        {"reset", do_reset, {"read", 1}, 714, "[Exception]para is invalid."},
        {"reset", do_reset, {"read", 2}, 725, "[Exception]KOVA_BoxReadRecord unsuccessfully, ret = 7."},
        {"reset", do_reset, {"write", 2}, 86, "[Exception]write databuf unsuccessfully, cnt = -1, errno = 5."},
        {"create",
         KOVA_CreateBox,
         {"ftruncate", 1, 1, EFBIG},
         kTruncateCode,
         "Kovad ftruncate unsuccessful.(ret=-1, errno=27)"},
        {"create", KOVA_CreateBox, {"lock"}, 53, "Kovad box file lock unsuccessful.(retValue=5, errno=5)"},
        {"create", KOVA_CreateBox, {"lseek", 1}, 614, "Kovad box get head unsuccessful.(retValue=61)"},
        {"create", KOVA_CreateBox, {"read", 3}, 725, "Kovad box get node head unsuccessful.(retValue=72)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.name << ", " << c.fault.call << " " << c.fault.at);
        disarm();
        SetUp();
        ASSERT_EQ(0u, KOVA_CreateBox());
        ASSERT_EQ(0u, append(0, 1));
        const Bytes heads = file();
        log_recorder().clear();
        arm(c.fault);
        EXPECT_EQ(c.code, c.operation());
        disarm();
        const auto messages = log_recorder().take();
        EXPECT_EQ(c.message, messages.empty() ? "" : messages.back().text);
        EXPECT_TRUE(std::equal(heads.begin(), heads.begin() + 68, file().begin()));
        EXPECT_EQ(0u, append(0, 2)) << "the lock is free again";
        EXPECT_EQ(2u, count_of(0));
    }
}

TEST_F(BoxFaults, AHeadThatCannotBeRebuiltIsReported) {
    const struct {
        int at;
        std::uint32_t append_code, read_code;
        std::string_view message;
    } cases[] = {
        {1, 825, 824, "[Exception]Kova write box head unsuccessfully, ret = 8."},
        {2, 836, 835, "[Exception]Write box head unsuccessfully, ret = 8."},
    };
    for (const auto& c : cases) {
        SetUp();
        arm({.call = "write", .at = c.at});
        EXPECT_EQ(c.append_code, do_append());
        EXPECT_EQ(1, std::ranges::count(log_recorder().take(), c.message, &LoggedMessage::text));
        SetUp();
        arm({.call = "write", .at = c.at});
        EXPECT_EQ(c.read_code, do_read());
    }
}

TEST_F(BoxFaults, AnInterruptedOrWronglyRefusedLockIsTriedAgain) {
    for (const int error : {EINTR, EDEADLK}) {
        arm({.call = "lock", .times = 3, .error = error});
        EXPECT_EQ(0u, do_append());
        EXPECT_EQ(4, g_seen);
    }
}

TEST_F(BoxFaults, AFileRemovedBeforeTheLockIsOpenedAgainThreeTimesAtMost) {
    const struct {
        int times;
        std::uint32_t code;
    } cases[] = {{1, 0}, {3, 0}, {4, 54}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.times);
        SetUp();
        ASSERT_EQ(0u, append(0, 1));
        arm({.call = "lock", .times = c.times, .unlink = true});
        EXPECT_EQ(c.code, do_append());
        disarm();
        EXPECT_EQ(c.code == 0 ? (Answer{.count = 1, .fills = {0xAA}, .has_buffer = true}) : Answer{},
                  read_newest(0, 0, 9));
    }
}

TEST_F(BoxFaults, OnlyOpenBoxRemovesWhatStandsInTheWay) {
    namespace fs = std::filesystem;
    const auto link = [] { fs::create_symlink("/opt/elsewhere", kBoxPath); };
    const auto fifo = [] { ASSERT_EQ(0, ::mkfifo(kBoxPath, 0600)); };
    const auto directory = [] { fs::create_directory(kBoxPath); };
    for (void (*const obstruct)() : {+link, +fifo, +directory}) {
        SetUp();
        obstruct();
        EXPECT_EQ(22u, do_append());
        EXPECT_EQ(22u, do_read());
        EXPECT_EQ(1u, do_read_slots());
        EXPECT_EQ(1u, do_rewrite());
        EXPECT_FALSE(fs::is_regular_file(kBoxPath));
        log_recorder().clear();
        ::umask(077);
        ASSERT_EQ(0u, do_reset());
        EXPECT_EQ("chown -h kova:tessal /opt/norvel/var/log/kova_exception_assert", g_command);
        struct stat status {};
        ASSERT_EQ(0, ::lstat(kBoxPath, &status));
        EXPECT_EQ(S_IFREG | 0660u, status.st_mode);
        EXPECT_EQ(0u, do_append());
        EXPECT_FALSE(fs::exists("/opt/elsewhere"));
    }
}

TEST_F(BoxFaults, OpenBoxTellsWhichStepFailed) {
    std::filesystem::create_directories(std::string(kBoxPath) + "/full");
    int fd = 5;
    EXPECT_EQ(4u, KOVA_OpenBox(&fd));
    EXPECT_EQ(-1, fd);
    const std::vector<LoggedMessage> expected = {
        error_message(0x0E401061, "Base", "Kovad open box unsuccessful.(*fd=-1, errno=21)"),
        error_message(0x0E401061, "Base", "Kovad remove box unsuccessful.(ret=-1, errno=39)"),
    };
    auto messages = log_recorder().take();
    if (messages.size() == 2 && messages[1].text.ends_with("errno=20)")) messages[1] = expected[1];
    EXPECT_EQ(expected, messages);
    EXPECT_EQ(41u, KOVA_BoxReset(0));
    EXPECT_EQ(41u, KOVA_CreateBox());
    arm({.call = "keep"});
    EXPECT_EQ(2u, KOVA_OpenBox(&fd));
    EXPECT_EQ("Kovad open box unsuccessful again.(*fd=-1, errno=21)", log_recorder().take().back().text);
    EXPECT_EQ(21u, KOVA_BoxReset(0));
    EXPECT_EQ(1u, KOVA_OpenBox(nullptr));
    EXPECT_EQ("", g_command);
}

TEST_F(BoxFaults, NoMemoryFailsAReadAndSparesAReset) {
    ASSERT_EQ(0u, append(0, 1));
    ASSERT_EQ(0u, do_rewrite());
    EXPECT_EQ(0, g_allocations) << "append and rewrite run while a process dies";
    g_no_memory = true;
    EXPECT_EQ((Answer{.code = 127, .count = 1}), read_newest(0, 0, 5));
    EXPECT_EQ((Answer{.code = 1, .count = 1}), read_slots(0, 0, 5));
    EXPECT_EQ(0u, KOVA_BoxReset(0));
    EXPECT_EQ(0u, count_of(0));
    EXPECT_EQ(0xBB, file()[slot_at(0, 0)]) << "not cleared, but not counted either";
}

TEST_F(BoxFaults, AReadErrorEndsTheAnswerWithWhatWasRead) {
    for (std::uint8_t i = 1; i <= 4; ++i) ASSERT_EQ(0u, append(0, i));
    arm({.call = "read", .at = 5});  // two heads, two records
    EXPECT_EQ((Answer{.count = 2, .fills = {4, 3}, .has_buffer = true}), read_newest(0, 0, 9));
    arm({.call = "read", .at = 5});
    EXPECT_EQ((Answer{.count = 2, .fills = {1, 2}, .has_buffer = true}), read_slots(0, 0, 9));
}

TEST_F(BoxFaults, TheFileNeverTakesAStandardDescriptor) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2}) ::close(fd);
        const std::uint32_t code = do_append();
        ::_exit(code == 0 && g_lowest_fd > 2 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(1u, count_of(0));
}

TEST_F(BoxFaults, BuildingBlocksRefuseBadArguments) {
    ASSERT_EQ(0u, append(0, 1));
    const int fd = ::open(kBoxPath, O_RDWR | O_CLOEXEC);
    KovaBoxHead head{};
    KovaBoxNodeHead node{};
    std::uint32_t count = 1, start = 0;
    void* records = nullptr;
    ASSERT_EQ(0u, KOVA_BoxGetHead(fd, &head));
    ASSERT_EQ(0u, KOVA_BoxGetNodeHead(fd, &head, 0, &node));
    EXPECT_EQ(1u, KOVA_BoxHeadIsValid(&head));
    EXPECT_EQ(0u, KOVA_BoxHeadIsValid(nullptr));
    EXPECT_EQ(0u, KOVA_BoxNodeHeadIsValid(&node, 1));
    EXPECT_EQ(0u, KOVA_BoxNodeHeadIsValid(&node, 2));
    EXPECT_EQ("[Exception]para is invalid, boxId = 2.", log_recorder().take().back().text);
    EXPECT_EQ(11u, KOVA_BoxGetHead(-1, &head));
    EXPECT_EQ(1u, KOVA_BoxGetNodeHead(fd, &head, 2, &node));
    EXPECT_EQ(1u, KOVA_BoxGetNodeHead(-1, &head, 0, &node));
    EXPECT_EQ(1u, KOVA_BoxReadGetStartAndNum(&node, 0, &start, nullptr));
    EXPECT_EQ(9u, KOVA_BoxReadGetStartAndNum(&node, 1, &start, &count));
    EXPECT_EQ(1u, KOVA_BoxReadGetStartAndNumFromBegin(&node, nullptr, &count));
    EXPECT_EQ(11u, KOVA_BoxReadWithCondition(fd, &head, nullptr, 0, 0, &count, &records));
    EXPECT_EQ(11u, KOVA_BoxReadWithCondition(fd, &head, &node, 0, 0, nullptr, &records));
    EXPECT_EQ(91u, KOVA_BoxReadWithCondition(fd, &head, &node, 0, 1, &count, &records));
    head.nodeOffset[0] = 35;
    EXPECT_EQ(1u, KOVA_BoxGetNodeHead(fd, &head, 0, &node));
    EXPECT_EQ(8u, KOVA_BoxWriteRecord(fd, 0, "x", -1));
    EXPECT_EQ(1u, KOVA_BoxWriteRecord(fd, 0, nullptr, 1));
    EXPECT_EQ(1u, KOVA_BoxReadRecord(-1, 0, &head, 1));
    EXPECT_EQ(0u, KOVA_BoxReadRecord(fd, 0xFFFFFFFF, &head, sizeof head)) << "offsets are unsigned";
    EXPECT_EQ(0u, head.magic);
    EXPECT_EQ(5u, KOVA_BoxFileLock(-1));
    EXPECT_EQ(1u, KOVA_BoxFileUnlock(-1));
    ::close(fd);
    EXPECT_EQ(1u, KOVA_BoxFileUnlock(fd));
}

// The process dies at each of its calls in turn, in a box that is filling and in a full one.
TEST_F(BoxFaults, AWriterKilledAtAnyPointCostsAtMostTheOldestRecord) {
    for (const std::uint8_t stored : {std::uint8_t{3}, std::uint8_t{20}}) {
        bool finished = false;
        for (int at = 1; !finished; ++at) {
            SCOPED_TRACE(::testing::Message() << stored << " stored, killed at call " << at);
            SetUp();
            for (std::uint8_t i = 1; i <= stored; ++i) ASSERT_EQ(0u, append(0, i));
            const pid_t child = ::fork();
            if (child == 0) {
                g_calls = 0;
                g_kill_at = at;
                ::_exit(static_cast<int>(do_append()));
            }
            int status = -1;
            ASSERT_EQ(child, ::waitpid(child, &status, 0));
            finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            ASSERT_TRUE(finished || WIFSIGNALED(status));
            const Answer answer = read_newest(0, 0, 20);
            ASSERT_EQ(0u, answer.code);
            Bytes kept;
            for (std::uint8_t i = stored; i > (stored == 20 ? 1 : 0); --i) kept.push_back(i);
            EXPECT_NE(answer.fills.end(),
                      std::search(answer.fills.begin(), answer.fills.end(), kept.begin(), kept.end()));
            if (finished) {
                EXPECT_EQ(0xAA, answer.fills.front());
            }
            ASSERT_EQ(0u, append(0, 0xCC));
            EXPECT_EQ(0xCC, read_newest(0, 0, 1).fills.front());
        }
    }
}

}  // namespace
}  // namespace kova::test
