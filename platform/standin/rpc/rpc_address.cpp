#include "rpc_address.h"

#include <sys/socket.h>
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace kova::wire {
namespace {

constexpr std::string_view kScheme = "domain://peer:";
constexpr char kRuntimeFolder[] = "/run/kova";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_letter_or_digit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_digit(c);
}

bool is_name_character(char c) {
    return is_letter_or_digit(c) || c == '_' || c == '-' || c == '.';
}

const char* runtime_folder() {
    const char* const folder = ::secure_getenv("KOVA_RUNTIME_DIR");
    return folder != nullptr && *folder != '\0' ? folder : kRuntimeFolder;
}

}  // namespace

std::string_view service_of_address(std::string_view address) {
    if (!address.starts_with(kScheme)) return {};
    address.remove_prefix(kScheme.size());
    const std::size_t colon = address.find(':');
    if (colon == std::string_view::npos || colon == 0) return {};
    const std::string_view name(address.data(), colon);
    address.remove_prefix(colon + 1);
    if (address.empty() || !std::ranges::all_of(address, is_digit)) return {};
    return is_letter_or_digit(name.front()) && std::ranges::all_of(name, is_name_character) ? name : std::string_view();
}

bool socket_of_address(std::string_view address, sockaddr_un* socket) {
    const std::string_view name = service_of_address(address);
    const std::string_view folder = runtime_folder();
    if (name.empty() || folder.size() + 1 + name.size() >= sizeof socket->sun_path) return false;
    *socket = {};
    socket->sun_family = AF_UNIX;
    char* end = std::ranges::copy(folder, socket->sun_path).out;
    *end++ = '/';
    std::ranges::copy(name, end);
    return true;
}

}  // namespace kova::wire
