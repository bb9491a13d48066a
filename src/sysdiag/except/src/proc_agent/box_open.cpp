// Opening the black box file against resistance, and preparing it; see box_open.h.
#include "except/src/proc_agent/box_open.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "base/log_message.h"
#include "except/src/proc_agent/box_file.h"
#include "kova/black_box.h"
#include "kova/shell_command.h"

namespace kova {
namespace {

constexpr Code kBoxRemoveFailed = 4;

UniqueFd open_box_file() {
    return open_regular_file(kBoxPath, kBoxOpenFlags, kBoxMode);
}

// What the opening and preparing steps of create_box() answered last.
struct CreateSteps {
    Code open = kOk;
    int set_length = 0;
};

Code create_box() {
    CreateSteps steps;
    LockedBox box(KOVA_BOX_EXCEPTION);
    const OpenStep failed = box.open({
        .open = [](void* context) { return open_or_replace_box_step(&static_cast<CreateSteps*>(context)->open); },
        .prepare = [](int fd,
                      void* context) { return set_box_length(fd, &static_cast<CreateSteps*>(context)->set_length); },
        .context = &steps,
    });
    switch (failed) {
        case OpenStep::kDone:
            break;
        case OpenStep::kOpen:
            return at_step(steps.open, 1);
        case OpenStep::kPrepare:
            KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kovad ftruncate unsuccessful.(ret=%d, errno=%d)",
                          steps.set_length, errno);
            return at_step(static_cast<Code>(steps.set_length), 2);
        case OpenStep::kLock:
            KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kovad box file lock unsuccessful.(retValue=%u, errno=%d)",
                          kBoxLockFailed, errno);
            return at_step(kBoxLockFailed, 3);
    }
    if (const Code rc = box.read_file_head(); rc != kOk) {
        box.close();
        KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kovad box get head unsuccessful.(retValue=%u)", rc);
        return at_step(rc, 4);
    }
    for (std::uint32_t id = 0; id < kBoxCount; ++id) {
        NodeHead node{};
        if (const Code rc = get_node_head(box.fd(), &box.head(), id, &node); rc != kOk) {
            box.close();
            KovaDLogWrite(KOVA_LOG_INTERNAL(kIdSetUp), "Kovad box get node head unsuccessful.(retValue=%u)", rc);
            return at_step(rc, 5);
        }
    }
    return kOk;
}

}  // namespace

Code open_or_replace_box(UniqueFd* fd) {
    *fd = open_box_file();
    if (fd->is_open()) return kOk;
    KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "Kovad open box unsuccessful.(*fd=%d, errno=%d)", fd->get(), errno);

    if (const int result = std::remove(kBoxPath); result != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "Kovad remove box unsuccessful.(ret=%d, errno=%d)", result, errno);
        return kBoxRemoveFailed;
    }

    *fd = open_box_file();
    if (!fd->is_open()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdIdentity), "Kovad open box unsuccessful again.(*fd=%d, errno=%d)", fd->get(),
                      errno);
        return kBoxOpenFailed;
    }
    // A node without these accounts keeps the file with the creator's; nobody could do anything about it here. The mode
    // is set for a creator whose mask took the group's rights away.
    static_cast<void>(KovaSystemCmd("chown -h kova:tessal /opt/norvel/var/log/kova_exception_assert"));
    static_cast<void>(::fchmod(fd->get(), kBoxMode));
    return kOk;
}

UniqueFd open_or_replace_box_step(void* code) {
    UniqueFd fd;
    *static_cast<Code*>(code) = open_or_replace_box(&fd);
    return fd;
}

}  // namespace kova

uint32_t KOVA_OpenBox(int* fd) {
    if (fd == nullptr) return kova::kFailed;
    kova::UniqueFd opened;
    const kova::Code rc = kova::open_or_replace_box(&opened);
    *fd = opened.release();
    return rc;
}

uint32_t KOVA_CreateBox(void) {
    return kova::create_box();
}
