// Result codes inside the library.
#pragma once

#include <cstdint>

namespace kova {

// Unsigned 32-bit, 0 for success. Every other code is named or stands in its function's header comment.
using Code = std::uint32_t;

inline constexpr Code kOk = 0;
inline constexpr Code kFailed = 1;
inline constexpr Code kUnavailable = 127;       // the family of the process readers and the shell
inline constexpr Code kMinusOne = 0xFFFFFFFFU;  // the family that answers "exists"

// A code that is passed upward: the callee's code and the step of the caller that failed.
[[nodiscard]] constexpr Code at_step(Code callee, std::uint32_t step) {
    return callee * 10 + step;
}

}  // namespace kova
