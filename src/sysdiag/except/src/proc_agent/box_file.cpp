// The black box file: open and lock, heads, positioned I/O; see box_file.h.
//
// Signal context: all of it. Messages go to the system log, since the platform's log writer must not be used here.
#include "except/src/proc_agent/box_file.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "base/file_lock.h"
#include "base/landing_pad.h"
#include "base/system_log.h"
#include "base/unique_fd.h"
#include "kova/black_box.h"

#include "base/signal_path.h"

const KovaBoxSpec g_kovaBoxDefSpec[KOVA_BOX_COUNT] = {kova::kBoxSpecs[0], kova::kBoxSpecs[1]};

namespace kova {
namespace {

constinit ProcessLock g_box_lock;

const SharedFileKind kBoxFile{
    .path = kBoxPath,
    .flags = kBoxOpenFlags,
    .mode = kBoxMode,
    .lock = g_box_lock,
    .budget = box_wait_budget,
};

// Asked for by their exported names, so that a patched answer holds for checking and rebuilding alike.
BoxIdentity own_identity() {
    return {.os_version = KOVA_BoxGetOsVersion(), .cpu_type = KOVA_BoxGetCpuType(), .box_len = KOVA_BoxGetBoxLen()};
}

bool file_head_is_valid(const FileHead* head) {
    if (head == nullptr) {
        send_to_system_log("[Exception]boxHead is null.");
        return false;
    }
    switch (check_file_head(*head, g_kovaBoxDefSpec, own_identity())) {
        case FileHeadFault::kNone:
            return true;
        case FileHeadFault::kNodeOffset0:
            report_to_system_log("[Exception]boxHead nodeOffset is invalid, nodeOffset = %u.", head->nodeOffset[0]);
            return false;
        case FileHeadFault::kNodeOffset1:
            report_to_system_log("[Exception]boxHead nodeOffset is invalid, nodeOffset = %u.", head->nodeOffset[1]);
            return false;
        case FileHeadFault::kCheckSum:
            send_to_system_log("[Exception]boxHead sum check unsuccessfully.");
            return false;
        default:
            send_to_system_log("[Exception]boxHead is invalid.");
            return false;
    }
}

bool node_head_is_valid(const NodeHead* node, std::uint32_t box_id) {
    if (node == nullptr || box_id >= kBoxCount) {
        report_to_system_log("[Exception]para is invalid, boxId = %u.", box_id);
        return false;
    }
    switch (check_node_head(*node, g_kovaBoxDefSpec[box_id])) {
        case NodeHeadFault::kNone:
            return true;
        case NodeHeadFault::kMagic:
            report_to_system_log("[Exception]box magic is invalid, magic = %u.", node->magic);
            return false;
        case NodeHeadFault::kCounts:
            return false;
        case NodeHeadFault::kRecordLen:
            report_to_system_log("[Exception]recordLen is invalid, recordLen = %u.", node->recordLen);
            return false;
        case NodeHeadFault::kCheckSum:
            send_to_system_log("[Exception]sum check unsuccessfully.");
            return false;
    }
    return false;
}

}  // namespace

int set_box_length(int fd, void* result) {
    int answer = 0;
    do {
        answer = ::ftruncate(fd, kBoxFileBytes);
    } while (answer != 0 && errno == EINTR);
    if (result != nullptr) *static_cast<int*>(result) = answer;
    return answer;
}

Code write_record(int fd, std::uint32_t offset, const void* data, std::int32_t length) {
    if (fd < 0 || data == nullptr) {
        send_to_system_log("[Exception] KOVA_BoxWriteRecord para is invalid.");
        return kFailed;
    }
    if (const off_t position = ::lseek(fd, offset, SEEK_SET); position < 0) {
        report_to_system_log("[Exception]lseek unsuccessfully, ret = %d, errno = %d.", static_cast<int>(position),
                             errno);
        return kBoxSeekFailed;
    }
    ssize_t count = -1;
    if (length < 0) {
        errno = EINVAL;
    } else {
        count = write_once(fd, data, static_cast<std::size_t>(length));
    }
    if (count != length || count < 0) {
        report_to_system_log("[Exception]write databuf unsuccessfully, cnt = %zd, errno = %d.", count, errno);
        return kBoxWriteFailed;
    }
    return kOk;
}

Code read_record(int fd, std::uint32_t offset, void* buffer, std::uint32_t length) {
    if (fd < 0 || buffer == nullptr) {
        send_to_system_log("[Exception] KOVA_BoxReadRecord para is invalid.");
        return kFailed;
    }
    if (const off_t position = ::lseek(fd, offset, SEEK_SET); position < 0) {
        report_to_system_log("[Exception]Read box lseek unsuccessfully, ret = %d, errno = %d.",
                             static_cast<int>(position), errno);
        return kBoxSeekFailed;
    }
    std::memset(buffer, 0, length);
    if (const ssize_t count = read_once(fd, buffer, length); count < 0) {
        report_to_system_log("[Exception]read box unsuccessfully, cnt = %zd, errno = %d.", count, errno);
        return kBoxReadFailed;
    }
    return kOk;
}

Code get_file_head(int fd, FileHead* head) {
    if (const Code rc = read_record(fd, 0, head, sizeof *head); rc != kOk) {
        send_to_system_log("[Exception]para is invalid.");
        return at_step(rc, 1);
    }
    if (file_head_is_valid(head)) return kOk;
    send_to_system_log("[Exception]Kova box head is invalid or not initialized.");
    *head = make_file_head(g_kovaBoxDefSpec, own_identity(), head->reserved);
    if (const Code rc = write_record(fd, 0, head, sizeof *head); rc != kOk) {
        report_to_system_log("[Exception]Kova write box head unsuccessfully, ret = %u.", rc);
        return at_step(rc, 2);
    }
    return kOk;
}

Code get_node_head(int fd, const FileHead* head, std::uint32_t box_id, NodeHead* node) {
    if (box_id >= kBoxCount || fd < 0 || head == nullptr || node == nullptr ||
        head->nodeOffset[box_id] < sizeof(FileHead)) {
        send_to_system_log("[Exception]para is invalid.");
        return kFailed;
    }
    const std::uint32_t offset = head->nodeOffset[box_id];
    if (const Code rc = read_record(fd, offset, node, sizeof *node); rc != kOk) {
        report_to_system_log("[Exception]KOVA_BoxReadRecord unsuccessfully, ret = %u.", rc);
        return at_step(rc, 2);
    }
    if (node_head_is_valid(node, box_id)) return kOk;
    send_to_system_log("[Exception]Box node head is invalid.");
    *node = make_node_head(g_kovaBoxDefSpec[box_id]);
    if (const Code rc = write_record(fd, offset, node, sizeof *node); rc != kOk) {
        report_to_system_log("[Exception]Write box head unsuccessfully, ret = %u.", rc);
        return at_step(rc, 3);
    }
    return kOk;
}

Code read_slot(int fd, const FileHead& head, const NodeHead& node, std::uint32_t box_id, std::uint32_t slot,
               void* record) {
    const auto offset = slot_offset(head.nodeOffset[box_id], node, g_kovaBoxDefSpec[box_id], slot);
    return offset.has_value() ? read_record(fd, *offset, record, node.recordLen) : kFailed;
}

LockedBox::LockedBox(std::uint32_t box_id, const CallingThread& thread) : box_id_(box_id), file_(kBoxFile, thread) {}

Code LockedBox::write_slot(std::uint32_t slot, const void* data, std::uint32_t length) const {
    const auto offset = slot_offset(head_.nodeOffset[box_id_], node_, spec(), slot);
    if (!offset.has_value() || length > node_.recordLen) return kFailed;
    return write_record(fd(), *offset, data, static_cast<std::int32_t>(length));
}

Code LockedBox::read_slot(std::uint32_t slot, void* record) const {
    return kova::read_slot(fd(), head_, node_, box_id_, slot, record);
}

Code LockedBox::write_node_head() const {
    return write_record(fd(), head_.nodeOffset[box_id_], &node_, sizeof node_);
}

}  // namespace kova

uint32_t KOVA_BoxGetHead(int fd, KovaBoxHead* head) {
    return kova::get_file_head(fd, head);
}

uint32_t KOVA_BoxGetNodeHead(int fd, const KovaBoxHead* head, uint32_t boxId, KovaBoxNodeHead* node) {
    return kova::get_node_head(fd, head, boxId, node);
}

uint32_t KOVA_BoxHeadIsValid(const KovaBoxHead* head) {
    return kova::file_head_is_valid(head) ? 1 : 0;
}

uint32_t KOVA_BoxNodeHeadIsValid(const KovaBoxNodeHead* node, uint32_t boxId) {
    return kova::node_head_is_valid(node, boxId) ? 1 : 0;
}

uint32_t KOVA_BoxWriteRecord(int fd, uint32_t offset, const void* data, int32_t length) {
    return kova::write_record(fd, offset, data, length);
}

uint32_t KOVA_BoxReadRecord(int fd, uint32_t offset, void* buffer, uint32_t length) {
    return kova::read_record(fd, offset, buffer, length);
}

uint32_t KOVA_BoxFileLock(int fd) {
    return kova::lock_whole_file(fd, kova::box_wait_budget()) ? kova::kOk : kova::kBoxLockFailed;
}

uint32_t KOVA_BoxFileUnlock(int fd) {
    return kova::unlock_whole_file(fd) ? kova::kOk : kova::kFailed;
}

uint32_t KOVA_BoxCheckSum(const uint8_t* data, uint32_t length) {
    return kova::box_checksum(data, length);
}

KOVA_PATCHABLE uint32_t KOVA_BoxGetOsVersion(void) {
    KOVA_LANDING_PAD();
    return kova::BoxIdentity{}.os_version;
}

KOVA_PATCHABLE uint32_t KOVA_BoxGetCpuType(void) {
    KOVA_LANDING_PAD();
    return kova::BoxIdentity{}.cpu_type;
}

KOVA_PATCHABLE uint32_t KOVA_BoxGetBoxLen(void) {
    KOVA_LANDING_PAD();
    return kova::BoxIdentity{}.box_len;
}
