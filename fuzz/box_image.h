// Makes black box files out of small inputs.
//
// A file has 389860 bytes and heads with checksums: random bytes would hardly ever get past the first check, and most
// of them would lie where nobody looks. So an input says how a file differs from a sound one:
//
//   1 byte      which checksums are made right afterwards, see ImageFlags
//   1 byte      records in each box, modulo 21: 20 are all that fit into box 0
//   100 bytes   exclusive-or into the file head, the node head of box 0, that of box 1
//   4 bytes     length that the file is cut or lengthened to; 0 keeps it
//   pieces      box and slot (1 byte: 0 to 19 in box 0, from 20 on in box 1), offset within the slot (2), length (1),
//               and so many bytes that are put there
#pragma once

#include <cstdint>

#include "file_image.h"
#include "fuzz_input.h"

namespace kova::fuzz {

enum ImageFlags : std::uint8_t {
    kRightFileChecksum = 1,
    kRightNode0Checksum = 2,
    kRightNode1Checksum = 4,
};

[[nodiscard]] Image make_box_image(Input& input);

}  // namespace kova::fuzz
