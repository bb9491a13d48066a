// How an accessor finds the region, and the accessor of a single figure.
#pragma once

#include <cstdint>

#include "base/log_message.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "kova/resource_attach.h"
#include "kova/resource_region.h"
#include "kova_platform/process_globals.h"
#include "resource/region_field.h"

namespace kova {

// The flag is read with acquire: the pointers that attaching stored before it are there.
[[nodiscard]] inline bool is_attached() {
    return load_acquire(g_KovaResourceInitAgentOK) != 0;
}

// Null while detached. The mapping lives as long as the process.
[[nodiscard]] inline KovaResourceRegion* attached_region() {
    return is_attached() ? load(g_KovaResourceInfoAgent) : nullptr;
}

// Hands a field out as it stands. A detached process is attached, and gets 0 and a failure this time.
[[nodiscard]] inline Code read_figure(std::uint32_t* figure, std::uint32_t KovaResourceRegion::*field) {
    if (figure == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return kFailed;
    }
    const KovaResourceRegion* const region = attached_region();
    if (region == nullptr) {
        *figure = 0;
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    *figure = load(region->*field);
    return kOk;
}

}  // namespace kova
