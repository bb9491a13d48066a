// The boot-environment tool of a node whose boot loader has none: variables in a file.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "environment_file.h"

namespace {

constexpr char kDefaultFile[] = "/usr/local/etc/kova_boot.env";

constexpr char kUsage[] =
    "usage: envmgr getenv NAME\n"
    "       envmgr setenv NAME VALUE\n"
    "       envmgr saveenv\n"
    "\n"
    "getenv prints the value of a variable and a line end, or nothing when there is no such variable. setenv changes\n"
    "a variable until the next saveenv makes all changes persistent; getenv shows it at once. An empty VALUE removes\n"
    "the variable. NAME is made of letters, digits and '_'; VALUE has no line end.\n"
    "\n"
    "Variables are kept in /usr/local/etc/kova_boot.env, or in $KOVA_ENV_FILE, one NAME=VALUE a line; unsaved ones\n"
    "beside it, in the same file name with .pending behind it. Removing that file takes back what was not saved.\n"
    "saveenv is all or nothing, even when it is killed or the power fails.\n"
    "\n"
    "Exit status: 0 done; 1 a file cannot be read or written; 2 bad use.\n";

constexpr int kTrouble = 1;
constexpr int kBadUse = 2;

bool is_name(std::string_view text) {
    constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    return !text.empty() && text.find_first_not_of(kLetters) == std::string_view::npos;
}

bool is_value(std::string_view text) {
    return text.find('\n') == std::string_view::npos;
}

// Takes the first line, with its line end where it has one, off the text.
std::string_view next_line(std::string_view* text) {
    const std::size_t end = text->find('\n');
    const std::string_view line = text->substr(0, end == std::string_view::npos ? end : end + 1);
    text->remove_prefix(line.size());
    return line;
}

bool is_of(std::string_view line, std::string_view name) {
    return line.size() > name.size() && line.starts_with(name) && line[name.size()] == '=';
}

int print_value(std::string_view text, std::string_view name) {
    std::string found;
    while (!text.empty()) {
        std::string_view line = next_line(&text);
        if (line.ends_with('\n')) line.remove_suffix(1);
        if (is_of(line, name)) found = line.substr(name.size() + 1);
    }
    if (found.empty()) return 0;
    found += '\n';
    if (std::fputs(found.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return 0;
    std::perror("envmgr: cannot write to standard output");
    return kTrouble;
}

std::string with_value(std::string_view text, std::string_view name, std::string_view value) {
    std::string changed;
    while (!text.empty()) {
        const std::string_view line = next_line(&text);
        if (!is_of(line, name)) changed += line;
    }
    if (value.empty()) return changed;
    if (!changed.empty() && !changed.ends_with('\n')) changed += '\n';
    changed.append(name).append("=").append(value).append("\n");
    return changed;
}

int get(const envmgr::EnvironmentFile& file, std::string_view name) {
    const auto text = file.read();
    return text ? print_value(*text, name) : kTrouble;
}

int set(envmgr::EnvironmentFile* file, std::string_view name, std::string_view value) {
    if (!file->lock()) return kTrouble;
    const auto text = file->read();
    return text && file->set_pending(with_value(*text, name, value)) ? 0 : kTrouble;
}

int save(envmgr::EnvironmentFile* file) {
    return file->lock() && file->save() ? 0 : kTrouble;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (command == "--help" && argc == 2) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    const char* const other = std::getenv("KOVA_ENV_FILE");
    envmgr::EnvironmentFile file(other != nullptr && *other != '\0' ? other : kDefaultFile);
    if (command == "getenv" && argc == 3 && is_name(argv[2])) return get(file, argv[2]);
    if (command == "setenv" && argc == 4 && is_name(argv[2]) && is_value(argv[3])) return set(&file, argv[2], argv[3]);
    if (command == "saveenv" && argc == 2) return save(&file);
    std::fputs(kUsage, stderr);
    return kBadUse;
}
