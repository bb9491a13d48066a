// The black box file: open and lock, heads, positioned I/O.
//
// Heads and records are rewritten in place with single writes, so a process killed at any point leaves each of them old
// or new, or, in the middle of a write, torn: the checksum finds a torn head and the box it belongs to is empty again.
//
// Locks: LockedBox holds the file's ProcessLock and record lock (base/shared_file.h) from open to close. Functions that
// take a descriptor leave the locking to their caller.
// Signal context: safe.
#pragma once

#include <fcntl.h>
#include <cstdint>

#include "base/result.h"
#include "base/shared_file.h"
#include "except/src/proc_agent/box_format.h"

namespace kova {

inline constexpr char kBoxPath[] = "/opt/norvel/var/log/kova_exception_assert";
inline constexpr int kBoxOpenFlags = O_RDWR | O_CREAT | O_NOFOLLOW;
inline constexpr mode_t kBoxMode = 0660;

// Own codes of the steps, before a caller appends its step number.
inline constexpr Code kBoxOpenFailed = 2;
inline constexpr Code kBoxSetLengthFailed = 3;
inline constexpr Code kBoxLockFailed = 5;
inline constexpr Code kBoxSeekFailed = 6;
inline constexpr Code kBoxReadFailed = 7;
inline constexpr Code kBoxWriteFailed = 8;

// A preparing step for LockedBox::open: gives the file its full length, a missing rest is zero. Answers what ftruncate
// answers; `result`, if not null, is an int that receives it too.
int set_box_length(int fd, void* result);

// KOVA_BoxWriteRecord and KOVA_BoxReadRecord.
[[nodiscard]] Code write_record(int fd, std::uint32_t offset, const void* data, std::int32_t length);
[[nodiscard]] Code read_record(int fd, std::uint32_t offset, void* buffer, std::uint32_t length);

// KOVA_BoxGetHead and KOVA_BoxGetNodeHead.
[[nodiscard]] Code get_file_head(int fd, FileHead* head);
[[nodiscard]] Code get_node_head(int fd, const FileHead* head, std::uint32_t box_id, NodeHead* node);

// Reads one slot, recordLen bytes as the node head has it. kFailed when the slot is not one of the box's own.
[[nodiscard]] Code read_slot(int fd, const FileHead& head, const NodeHead& node, std::uint32_t box_id,
                             std::uint32_t slot, void* record);

// The file, open and locked, and the checked heads of one of its boxes. Unlocks and closes on every path out.
class LockedBox {
  public:
    explicit LockedBox(std::uint32_t box_id, const CallingThread& thread = calling_thread());

    // Answers the step that failed, with errno.
    [[nodiscard]] OpenStep open(const SharedFile::Steps& steps = {}) { return file_.open_locked(steps); }

    // To be called in this order, with the file open. An id above 1 fails in the second, with 1.
    [[nodiscard]] Code read_file_head() { return get_file_head(file_.fd(), &head_); }
    [[nodiscard]] Code read_node_head() { return get_node_head(file_.fd(), &head_, box_id_, &node_); }

    [[nodiscard]] int fd() const { return file_.fd(); }
    [[nodiscard]] const BoxSpec& spec() const { return g_kovaBoxDefSpec[box_id_]; }
    [[nodiscard]] const FileHead& head() const { return head_; }
    [[nodiscard]] const NodeHead& node() const { return node_; }
    [[nodiscard]] NodeHead& node() { return node_; }

    // Rewrites or reads one slot. kFailed, and nothing is touched, when the record is longer than a slot or the slot is
    // not one of the box's own. A record read is recordLen bytes long.
    [[nodiscard]] Code write_slot(std::uint32_t slot, const void* data, std::uint32_t length) const;
    [[nodiscard]] Code read_slot(std::uint32_t slot, void* record) const;
    [[nodiscard]] Code write_node_head() const;

    void close() { file_.close(); }

  private:
    std::uint32_t box_id_;
    SharedFile file_;
    FileHead head_{};
    NodeHead node_{};
};

}  // namespace kova
