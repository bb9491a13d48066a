// The format of the black box file, without I/O: layout, heads, checksum, checks, slot arithmetic.
//
// The agent's operations, kovactl, the host and the fuzzers use it. A node head read from a file is hostile input even
// when its checksum is right; nothing here overflows, divides by zero or points outside the box's own area.
//
// Signal context: safe.
#pragma once
