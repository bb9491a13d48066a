// The system calls that one operation on a shared file needs.
//
// Open, the lock of the whole file, a look at it (a FIFO is no log, and a file may have been removed in the meantime),
// and back again. What is to be given its length is looked at before that, too.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstdlib>
#include <string>

#include "kova/black_box.h"
#include "kova/exception_record.h"

namespace kova::bench {

inline constexpr char kBoxFile[] = "/opt/norvel/var/log/kova_exception_assert";
inline constexpr off_t kFirstNodeHead = sizeof(KovaBoxHead);
inline constexpr off_t kFirstRecord = kFirstNodeHead + static_cast<off_t>(sizeof(KovaBoxNodeHead));

// "/proc/PID/NAME" of this process, which must be one and the same all the time.
inline std::string proc_path(const char* name) {
    return "/proc/" + std::to_string(::getpid()) + "/" + name;
}

inline int open_locked(const char* path, int flags, off_t length = 0) {
    const int fd = ::open(path, flags | O_CREAT | O_RDWR | O_NOFOLLOW, 0660);
    if (fd < 0) std::abort();
    struct stat status {};
    if (length > 0) {
        ::fstat(fd, &status);
        if (::ftruncate(fd, length) != 0) std::abort();
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ::fcntl(fd, F_SETLKW, &lock);
    ::fstat(fd, &status);
    return fd;
}

inline void unlock_close(int fd) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    ::fcntl(fd, F_SETLK, &lock);
    ::close(fd);
}

inline void read_at(int fd, off_t offset, void* buffer, std::size_t length) {
    ::lseek(fd, offset, SEEK_SET);
    static_cast<void>(!::read(fd, buffer, length));
}

inline void write_at(int fd, off_t offset, const void* data, std::size_t length) {
    ::lseek(fd, offset, SEEK_SET);
    static_cast<void>(!::write(fd, data, length));
}

inline void append_record(const void* record) {
    const int box = open_locked(kBoxFile, 0, KOVA_BOX_FILE_BYTES);
    KovaBoxHead head;
    KovaBoxNodeHead node;
    read_at(box, 0, &head, sizeof head);
    read_at(box, kFirstNodeHead, &node, sizeof node);
    write_at(box, kFirstRecord, record, sizeof(KovaExceptInfo));
    write_at(box, kFirstNodeHead, &node, sizeof node);
    unlock_close(box);
}

}  // namespace kova::bench
