// Makes black box files out of small inputs; see box_image.h.
#include "box_image.h"

#include <algorithm>
#include <cstddef>

#include "except/src/proc_agent/box_format.h"
#include "kova/assert_record.h"
#include "kova/exception_record.h"

namespace kova::fuzz {
namespace {

constexpr std::uint32_t kMarkers[kBoxCount] = {KOVA_EXCEPT_MARKER, KOVA_ASSERT_MARKER};
constexpr std::size_t kTimeOffset = 8;  // in the records of both boxes
constexpr std::size_t kBeyondTheEnd = 4096;

std::size_t slot_begin(std::uint32_t box, std::uint32_t slot) {
    return kBoxSpecs[box].nodeOffset + kNodeHeadBytes + std::size_t{slot} * kBoxSpecs[box].recordLen;
}

void put(Image& image, std::size_t offset, const void* data, std::size_t length) {
    if (offset >= image.size()) return;
    std::memcpy(image.data() + offset, data, std::min(length, image.size() - offset));
}

// Markers, and times that go up from slot to slot.
NodeHead store_records(Image& image, std::uint32_t box, std::uint32_t count) {
    NodeHead node = make_node_head(kBoxSpecs[box]);
    for (std::uint32_t slot = 0; slot < count; ++slot) {
        struct tm time {};
        time.tm_year = 125;
        time.tm_mday = 1;
        time.tm_sec = static_cast<int>(slot);
        put(image, slot_begin(box, slot), &kMarkers[box], sizeof kMarkers[box]);
        put(image, slot_begin(box, slot) + kTimeOffset, &time, sizeof time);
        advance(node);
    }
    return node;
}

template <typename Head>
void put_head(Image& image, std::size_t offset, Head head, Input& input, bool right_checksum) {
    const Bytes difference = input.take(sizeof head);
    std::uint8_t bytes[sizeof head];
    std::memcpy(bytes, &head, sizeof head);
    for (std::size_t i = 0; i < difference.size(); ++i) bytes[i] ^= difference[i];
    std::memcpy(&head, bytes, sizeof head);
    if (right_checksum) head.checkSum = head_checksum(head);
    put(image, offset, &head, sizeof head);
}

void put_piece(Image& image, Input& input) {
    constexpr std::uint32_t kSlots = kBoxSpecs[0].recordMax + kBoxSpecs[1].recordMax;
    const std::uint32_t place = input.number<std::uint8_t>() % kSlots;
    const std::uint32_t box = place < kBoxSpecs[0].recordMax ? 0 : 1;
    const std::uint32_t slot = box == 0 ? place : place - kBoxSpecs[0].recordMax;
    const std::size_t offset = input.number<std::uint16_t>() % kBoxSpecs[box].recordLen;
    const Bytes bytes = input.take(input.number<std::uint8_t>());
    put(image, slot_begin(box, slot) + offset, bytes.data(), bytes.size());
}

}  // namespace

Image make_box_image(Input& input) {
    const auto flags = input.number<std::uint8_t>();
    const std::uint32_t records = input.number<std::uint8_t>() % (kBoxSpecs[KOVA_BOX_EXCEPTION].recordMax + 1);
    Image image(kBoxFileBytes);
    put_head(image, 0, make_file_head(kBoxSpecs, {}, 0), input, (flags & kRightFileChecksum) != 0);
    for (std::uint32_t box = 0; box < kBoxCount; ++box) {
        const NodeHead node = store_records(image, box, records);
        const int right = box == 0 ? kRightNode0Checksum : kRightNode1Checksum;
        put_head(image, kBoxSpecs[box].nodeOffset, node, input, (flags & right) != 0);
    }
    if (const auto length = input.number<std::uint32_t>(); length != 0) {
        image.resize(length % (kBoxFileBytes + kBeyondTheEnd));
    }
    while (!input.is_empty()) put_piece(image, input);
    return image;
}

}  // namespace kova::fuzz
