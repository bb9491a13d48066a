// The arguments that every message to the platform's log writer starts with: level, message id and module tag.
//
//     KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KovaSystemCmd,command is null.");
#pragma once

#include <cstdint>

#include "kova_platform/log.h"

namespace kova {

inline constexpr std::uint32_t kLogError = 1;
inline constexpr std::uint32_t kLogInformation = 3;

inline constexpr std::uint32_t kIdAssertBlock = 0x0E40101D;  // block of an assert, in slices
inline constexpr std::uint32_t kIdSetUp = 0x0E40105A;        // one-time set-up
inline constexpr std::uint32_t kIdGeneral = 0x0E40105B;      // general errors, and every information message
inline constexpr std::uint32_t kIdCommandLine = 0x0E40105E;  // command line of a process
inline constexpr std::uint32_t kIdStatusFile = 0x0E40105F;   // status file of a process, uptime
inline constexpr std::uint32_t kIdRegion = 0x0E401060;       // shared region, registration timeouts, link events
inline constexpr std::uint32_t kIdIdentity = 0x0E401061;     // node identity, black box, exception buffers
inline constexpr std::uint32_t kIdLock = 0x0E401062;         // locks, boot environment, shell result

}  // namespace kova

#define KOVA_LOG_BASE(id) ::kova::kLogError, (id), "Base"
#define KOVA_LOG_INTERNAL(id) ::kova::kLogError, (id), "Internal"
#define KOVA_LOG_STARTUP(id) ::kova::kLogError, (id), "Startup"
#define KOVA_LOG_INFO ::kova::kLogInformation, ::kova::kIdGeneral, "Info"
