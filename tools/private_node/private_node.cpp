// Runs a program on a node of its own: the fixed directories are empty and private, the rest of the machine is as it
// is.
//
//     private_node PROGRAM [ARGUMENT...]
//
// The program finds empty file systems on /opt, /run, /usr/local/etc and /dev/shm, with /opt/norvel/var/log and
// /run/kova made. They vanish with its last process, and nothing outside ever sees them. An ordinary user becomes root
// inside, with no more rights outside than before.
//
// Exit status: the program's own; 125 when no node can be made; 126 when the program cannot be run; 127 when it is not
// found.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kExitNoNode = 125;
constexpr int kExitCannotRun = 126;
constexpr int kExitNotFound = 127;

struct EmptyFileSystem {
    const char* path;
    const char* options;
};

// Modes are those of the real directories: a program that runs under another user id meets the usual permissions.
constexpr EmptyFileSystem kEmpty[] = {
    {"/opt", "mode=0755"},
    {"/run", "mode=0755"},
    {"/usr/local/etc", "mode=0755"},
    {"/dev/shm", "mode=1777"},
};

constexpr const char* kDirectories[] = {"/opt/norvel/var/log", "/run/kova"};

constexpr char kNotAllowed[] =
    "this user cannot make a private node, run it as root or allow unprivileged user namespaces; refused:";

bool fail(const char* what, const char* path) {
    std::fprintf(stderr, "private_node: %s%s%s: %s\n", what, *path != '\0' ? " " : "", path, std::strerror(errno));
    return false;
}

bool write_file(const char* path, const char* text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const std::size_t length = std::strlen(text);
    const bool done = ::write(fd, text, length) == static_cast<ssize_t>(length);
    ::close(fd);
    return done;
}

bool map_to_root(const char* path, unsigned outside) {
    char line[32];
    std::snprintf(line, sizeof line, "0 %u 1\n", outside);
    return write_file(path, line) || fail(kNotAllowed, path);
}

// The only way for an ordinary user, and for root in a container that may not mount.
bool enter_user_and_mount_namespace() {
    const unsigned user = ::geteuid();
    const unsigned group = ::getegid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return fail(kNotAllowed, "unshare");
    }
    // An ordinary user may map its group only after giving up setgroups(); kernels without the file need no such step.
    if (!write_file("/proc/self/setgroups", "deny") && errno != ENOENT) {
        return fail(kNotAllowed, "/proc/self/setgroups");
    }
    return map_to_root("/proc/self/uid_map", user) && map_to_root("/proc/self/gid_map", group);
}

bool enter_namespaces() {
    if (::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0) return true;
    return enter_user_and_mount_namespace();
}

// What the system has is used as it is; a bare one (an initial RAM disk) has it made.
bool make_directories(const char* path) {
    char prefix[64];
    const std::size_t length = std::strlen(path);
    for (std::size_t i = 1; i <= length; ++i) {
        if (path[i] != '/' && path[i] != '\0') continue;
        std::memcpy(prefix, path, i);
        prefix[i] = '\0';
        if (::mkdir(prefix, 0755) != 0 && errno != EEXIST) return fail("cannot make directory", prefix);
    }
    return true;
}

bool mount_empty(const EmptyFileSystem& empty) {
    struct stat status {};
    if (::stat(empty.path, &status) != 0 && !make_directories(empty.path)) return false;
    return ::mount("private_node", empty.path, "tmpfs", MS_NOSUID | MS_NODEV, empty.options) == 0 ||
           fail("cannot mount an empty file system on", empty.path);
}

bool make_node() {
    if (!enter_namespaces()) return false;
    // From here on nothing that is mounted shows outside.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("cannot make private", "/");
    for (const EmptyFileSystem& empty : kEmpty) {
        if (!mount_empty(empty)) return false;
    }
    for (const char* const directory : kDirectories) {
        if (!make_directories(directory)) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') {
        const bool asked = argc >= 2 && std::strcmp(argv[1], "--help") == 0;
        std::fprintf(asked ? stdout : stderr,
                     "usage: private_node PROGRAM [ARGUMENT...]\n"
                     "Runs PROGRAM with empty, private /opt, /run, /usr/local/etc and /dev/shm.\n"
                     "Exit status: the program's; 125 no node; 126 PROGRAM cannot be run; 127 PROGRAM not found.\n");
        return asked ? 0 : kExitNoNode;
    }
    if (!make_node()) return kExitNoNode;
    ::execvp(argv[1], argv + 1);
    const bool missing = errno == ENOENT;
    fail("cannot run", argv[1]);
    return missing ? kExitNotFound : kExitCannotRun;
}
