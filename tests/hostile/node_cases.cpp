// Programs that die on a node, or with resources, that a capture can do little with.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "hostile/hostile_case.h"

namespace kova::test {
namespace {

const std::vector<std::string> kFault = {"crash_helper", "fault", "11"};

void fail_setup(const char* what) {
    ADD_FAILURE() << what << ": " << std::strerror(errno);
}

void limit_in_exec(__rlimit_resource_t resource, rlim_t value) {
    const rlimit limit{value, value};
    if (::setrlimit(resource, &limit) != 0) ::_exit(99);
}

void append_bytes(const char* path, std::size_t count) {
    std::ofstream(path, std::ios::app | std::ios::binary) << std::string(count, '.');
}

// As many bytes as the file system takes.
void fill_up(HostileNode&) {
    std::ofstream file("/opt/norvel/var/log/ballast", std::ios::binary);
    const std::string block(4096, '.');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) continue;
}

// Every slot of the exception box is in use, so that its blocks exist.
void fill_the_box() {
    KovaExceptInfo record{};
    record.magic = KOVA_EXCEPT_MARKER;
    for (int i = 0; i < 20; ++i) EXPECT_EQ(0U, KOVA_BoxWrite(0, &record, sizeof record, nullptr));
}

void make_another_root(HostileNode&) {
    std::filesystem::create_directories("/run/kova/root/opt/norvel/var/log");
    HostileNode::bind(kLogFolder, "/run/kova/root/opt/norvel/var/log");
}

void leave_another_root() {
    ::umount2("/run/kova/root/opt/norvel/var/log", MNT_DETACH);
    std::filesystem::remove_all("/run/kova/root");
}

// The program becomes process 1 of a namespace with its own /proc; this process stays to pass on how it ended.
void become_process_1() {
    if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) ::_exit(99);
    const pid_t child = ::fork();
    if (child == 0) {
        // Without it the process's files are not to be found, or somebody else's are.
        if (::mount("proc", "/proc", "proc", 0, nullptr) != 0) ::_exit(99);
        return;
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::_exit(WIFSIGNALED(status) ? 200 + WTERMSIG(status) : WEXITSTATUS(status));
}

enum class Instead { kLink, kFolder, kPipe, kDevice };

constexpr char kLinkTarget[] = "/opt/norvel/var/log/target";

void put_instead(const char* path, Instead what) {
    ::unlink(path);
    switch (what) {
        case Instead::kLink:
            std::ofstream(kLinkTarget) << "untouched";
            if (::symlink(kLinkTarget, path) != 0) fail_setup("symlink");
            break;
        case Instead::kFolder:
            // Not empty, so that nobody can remove it.
            std::filesystem::create_directories(std::string(path) + "/inside");
            break;
        case Instead::kPipe:
            if (::mkfifo(path, 0660) != 0) fail_setup("mkfifo");
            break;
        case Instead::kDevice:
            std::ofstream(path).flush();
            HostileNode::bind("/dev/zero", path);
            break;
    }
}

void expect_target_untouched() {
    std::ifstream file(kLinkTarget);
    if (!file) return;
    EXPECT_EQ("untouched", std::string(std::istreambuf_iterator<char>(file), {}));
}

}  // namespace

HostileNode::HostileNode(std::size_t bytes) {
    const std::string options = "mode=0755,size=" + (bytes == 0 ? "256m" : std::to_string(bytes));
    if (::mount("hostile_node", kLogFolder, "tmpfs", 0, options.c_str()) != 0) fail_setup("mount");
}

HostileNode::~HostileNode() {
    release_locks();
    if (::umount2(kLogFolder, MNT_DETACH) != 0) fail_setup("umount");
}

void HostileNode::bind(const char* path, const std::string& over) {
    if (::mount(path, over.c_str(), nullptr, MS_BIND, nullptr) != 0) fail_setup("bind mount");
}

std::vector<Case> resource_cases() {
    return {
        {.name = "no descriptor left",
         .victim = {"crash_helper", "without-descriptors"},
         .report = Report::kNone,
         .record = Record::kNone,
         .before_exec = [] { limit_in_exec(RLIMIT_NOFILE, 64); }},
        {.name = "closed descriptors 0 to 2",
         .victim = kFault,
         .before_exec =
             [] {
                 for (const int fd : {0, 1, 2}) ::close(fd);
             }},
        {.name = "file size limit 0",
         .victim = kFault,
         .report = Report::kNone,
         .record = Record::kNone,
         .before_exec = [] { limit_in_exec(RLIMIT_FSIZE, 0); }},
        {.name = "log at the file size limit",
         .victim = kFault,
         .report = Report::kNone,
         .prepare = [](HostileNode&) { append_bytes(kLogPath, 400'000); },
         .before_exec = [] { limit_in_exec(RLIMIT_FSIZE, 400'000); }},
        {.name = "no further process", .victim = kFault, .before_exec = [] { limit_in_exec(RLIMIT_NPROC, 0); }},
        {.name = "no further memory", .victim = {"crash_helper", "without-memory"}},
        {.name = "in another root with the log folder",
         .victim = {"crash_helper", "in-another-root"},
         .report = Report::kCut,
         .in_report = {"Register Contents:", "Show CallStack:\n#0 "},
         .prepare = make_another_root,
         .afterwards = leave_another_root},
        {.name = "in another root without it",
         .victim = {"crash_helper", "in-another-root"},
         .report = Report::kNone,
         .record = Record::kNone,
         .prepare = [](HostileNode&) { std::filesystem::create_directories("/run/kova/root"); },
         .afterwards = leave_another_root},
        {.name = "process 1 of a namespace", .victim = kFault, .before_exec = become_process_1},
        {.name = "process 1 that is asked to end",
         .victim = {"crash_helper", "kill", "15"},
         .report = Report::kTraceLine,
         .record = Record::kNone,
         .before_exec = become_process_1,
         .wait_status = W_EXITCODE(128 + SIGTERM, 0)},
        {.name = "another user who may not write",
         .victim = {"crash_helper", "as-nobody"},
         .report = Report::kNone,
         .record = Record::kNone},
        {.name = "another user who may",
         .victim = {"crash_helper", "as-nobody"},
         .prepare =
             [](HostileNode&) {
                 ::chmod(kLogPath, 0666);
                 ::chmod(kBoxPath, 0666);
             }},
        {.name = "log locked by a stopped process",
         .victim = kFault,
         .report = Report::kNone,
         .prepare = [](HostileNode& node) { node.hold(kLogPath); },
         .timeout_seconds = "20"},
        {.name = "box locked by a stopped process",
         .victim = kFault,
         .report = Report::kCut,
         .record = Record::kNone,
         .prepare = [](HostileNode& node) { node.hold(kBoxPath); },
         .timeout_seconds = "2"},
        {.name = "log and box locked by stopped processes",
         .victim = kFault,
         .report = Report::kNone,
         .record = Record::kNone,
         .prepare =
             [](HostileNode& node) {
                 node.hold(kLogPath);
                 node.hold(kBoxPath);
             },
         .timeout_seconds = "2"},
    };
}

std::vector<Case> path_cases() {
    std::vector<Case> cases{
        {.name = "no log folder",
         .victim = kFault,
         .report = Report::kNone,
         .record = Record::kNone,
         .prepare =
             [](HostileNode&) {
                 if (::rename("/opt/norvel", "/opt/elsewhere") != 0) fail_setup("rename");
             },
         .afterwards = [] { static_cast<void>(::rename("/opt/elsewhere", "/opt/norvel")); }},
        {.name = "read-only log folder",
         .victim = kFault,
         .report = Report::kNone,
         .record = Record::kNone,
         .prepare =
             [](HostileNode&) {
                 if (::mount(nullptr, kLogFolder, nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) fail_setup("remount");
             },
         .afterwards = [] { static_cast<void>(::mount(nullptr, kLogFolder, nullptr, MS_REMOUNT, nullptr)); }},
        {.name = "empty log folder", .victim = kFault, .after_earlier_crashes = false},
        {.name = "full disk",
         .victim = kFault,
         .report = Report::kAny,
         .record = Record::kAny,
         .prepare = fill_up,
         .node_bytes = 512 * 1024},
        {.name = "full disk without log and box",
         .victim = kFault,
         .report = Report::kAny,
         .record = Record::kNone,
         .prepare = fill_up,
         .node_bytes = 64 * 1024,
         .after_earlier_crashes = false},
        {.name = "disk that fills up midway",
         .victim = kFault,
         .report = Report::kCut,
         .prepare = [](HostileNode&) { fill_the_box(); },
         .node_bytes = 224 * 1024,
         .after_earlier_crashes = false},
    };
    const struct {
        const char* name;
        const char* path;
        Report report;
        Record record;
        std::vector<std::string> in_report;
    } paths[] = {{"log", kLogPath, Report::kNone, Record::kKept, {}},
                 {"box", kBoxPath, Report::kWhole, Record::kNone, {"KOVA Box Write unsuccessful.(ret=22)\n"}}};
    const struct {
        const char* name;
        Instead what;
    } kinds[] = {{"a link", Instead::kLink},
                 {"a folder", Instead::kFolder},
                 {"a pipe", Instead::kPipe},
                 {"a device", Instead::kDevice}};
    for (const auto& path : paths) {
        for (const auto& kind : kinds) {
            cases.push_back({.name = std::string(path.name) + " is " + kind.name,
                             .victim = kFault,
                             .report = path.report,
                             .record = path.record,
                             .in_report = path.in_report,
                             .prepare = [path = path.path, what = kind.what](HostileNode&) { put_instead(path, what); },
                             .afterwards = expect_target_untouched,
                             .after_earlier_crashes = false});
        }
    }
    return cases;
}

}  // namespace kova::test
