// What a wait status says about a boot-environment command.
#include "base/log_message.h"
#include "base/result.h"
#include "kova/shell_command.h"

using kova::kIdLock;

uint32_t KOVA_SystemRetCheck(int32_t status) {
    const int32_t signal = status & 0x7F;
    const int32_t exit_code = (status >> 8) & 0xFF;
    if (signal == 0 && exit_code == 0) return kova::kOk;
    if (signal != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "envmgr setenv env_fastboot unsuccessful and exit status = %d.",
                      exit_code);
    } else {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "envmgr setenv env_fastboot unsuccessful and exit code is %d.",
                      exit_code);
    }
    return kova::kUnavailable;
}
