// Messages as a process makes them, for tests of the daemon.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "link_record.h"
#include "wire.h"

namespace kova::test {

using Bytes = std::vector<std::byte>;

template <typename... Words>
Bytes words(Words... values) {
    const std::array<std::uint32_t, sizeof...(values)> array{static_cast<std::uint32_t>(values)...};
    const auto bytes = std::as_bytes(std::span(array));
    return {bytes.begin(), bytes.end()};
}

inline kovad::Name name_field(std::string_view text) {
    kovad::Name name{};
    std::ranges::copy(text, name.begin());
    return name;
}

inline Bytes registration(std::string_view name, std::uint32_t pid, bool publisher = false) {
    const kovad::Name field = name_field(name);
    Bytes payload(sizeof field);
    std::memcpy(payload.data(), field.data(), sizeof field);
    for (const std::byte b : words(pid, 7U, publisher ? 1U : 0U)) payload.push_back(b);
    return payload;
}

inline Bytes message(wire::Kind kind, std::uint32_t call_number, std::string_view service, const Bytes& payload,
                     std::uint32_t status = 0) {
    Bytes bytes(wire::kMessageLimit);
    bytes.resize(wire::encode(
        {.kind = kind, .call_number = call_number, .status = status, .service = service, .payload = payload}, bytes));
    return bytes;
}

// `count` subscriptions of modules that are numbered from `first` on.
inline Bytes subscribe_page(std::uint32_t first, std::uint32_t count, std::uint32_t result = 0) {
    Bytes payload = words(result, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const kovad::SubscribeInfo info{.module = name_field("module" + std::to_string(first + i)),
                                        .resource = name_field("dataPlaneCpu"),
                                        .overload = 80,
                                        .recover = 60};
        const auto bytes = std::as_bytes(std::span(&info, 1));
        payload.insert(payload.end(), bytes.begin(), bytes.end());
    }
    return payload;
}

template <typename T>
T at_offset(std::span<const std::byte> bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

}  // namespace kova::test
