#include "hosts/fuse/mount/mount_request.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <system_error>

namespace tavelin::fusehost {

namespace {

using namespace std::string_view_literals;

// mount(8) hands these on although they are its own, or they ask for what is so anyway: reading
// never changes an access time.
constexpr std::array kIgnored = {
    "rw"sv,       "defaults"sv,   "auto"sv,           "noauto"sv,  "user"sv,       "nouser"sv,
    "users"sv,    "owner"sv,      "group"sv,          "_netdev"sv, "nofail"sv,     "relatime"sv,
    "async"sv,    "nodiratime"sv, "lazytime"sv,       "loop"sv,    "big_writes"sv, "power_save"sv,
    "nls=utf8"sv, "utf8"sv,       "iocharset=utf8"sv, "recover"sv, "silent"sv,     "user_xattr"sv,
};
// Notes that programs leave for each other in the mount table.
constexpr std::array kNotes = {"x-"sv, "comment="sv, "uhelper="sv, "helper="sv, "locale="sv};

constexpr std::array kForKernel = {
    "noatime"sv, "noexec"sv, "exec"sv,  "sync"sv, "dirsync"sv,
    "suid"sv,    "nosuid"sv, "nodev"sv, "dev"sv,  "default_permissions"sv,
};

template<size_t n>
bool contains(const std::array<std::string_view, n>& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// "name=number" in the given base; absent when that is not what the word is.
std::optional<uint32_t> numberOf(std::string_view word, std::string_view name, int base,
                                 uint32_t largest) {
    if (!word.starts_with(name)) {
        return std::nullopt;
    }
    word.remove_prefix(name.size());
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
    const bool sound = error == std::errc() && end == word.data() + word.size() && !word.empty();
    return sound && number <= largest ? std::optional(number) : std::nullopt;
}

// Whose the files are and what is masked. True when the word has been dealt with.
bool applyOwnership(std::string_view word, MountRequest& request) {
    // -1 means "nobody" to the system calls that take such a number.
    constexpr uint32_t kIDMax = std::numeric_limits<uint32_t>::max() - 1;
    constexpr uint32_t kMaskMax = 0777;
    if (const auto user = numberOf(word, "uid=", 10, kIDMax)) {
        request.user = user;
    } else if (const auto group = numberOf(word, "gid=", 10, kIDMax)) {
        request.group = group;
    } else if (const auto both = numberOf(word, "umask=", 8, kMaskMax)) {
        request.fileMask = request.directoryMask = both;
    } else if (const auto files = numberOf(word, "fmask=", 8, kMaskMax)) {
        request.fileMask = files;
    } else if (const auto directories = numberOf(word, "dmask=", 8, kMaskMax)) {
        request.directoryMask = directories;
    } else {
        return false;
    }
    return true;
}

// True when the word has been dealt with.
bool apply(std::string_view word, MountRequest& request) {
    if (word == "ro" || word == "rdonly") {
        request.readOnly = true;
        request.volumeOptions.emplace_back(word);
    } else if (word == "windows_names" || word == "ignore_case" || word == "symlinks=windows" ||
               word == "symlinks=interix" || word == "nocheck") {
        request.volumeOptions.emplace_back(word);
    } else if (word == "allow_other") {
        request.allowOther = true;
    } else if (word == "streams_interface=xattr" || word == "streams_interface=none") {
        request.streams = word.ends_with("xattr");
    } else if (word == "permissions") {
        request.permissions = true;
    } else if (word == "writeback") {
        request.writeback = true;
    } else if (word == "low_latency") {
        request.lowLatency = true;
    } else if (word == "no_sandbox") {
        request.sandbox = false;
    } else if (contains(kForKernel, word)) {
        request.kernelOptions.emplace_back(word);
    } else {
        const auto begins = [word](std::string_view note) { return word.starts_with(note); };
        return applyOwnership(word, request) || contains(kIgnored, word) ||
               std::any_of(kNotes.begin(), kNotes.end(), begins);
    }
    return true;
}

} // namespace

std::vector<std::string> applyOptions(std::string_view list, MountRequest& request) {
    std::vector<std::string> unknown;
    while (!list.empty()) {
        const size_t end = std::min(list.find(','), list.size());
        const std::string_view word = list.substr(0, end);
        list.remove_prefix(std::min(end + 1, list.size()));
        if (!word.empty() && !apply(word, request)) {
            unknown.emplace_back(word);
        }
    }
    return unknown;
}

std::string joined(const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words) {
        list += list.empty() ? word : "," + word;
    }
    return list;
}

} // namespace tavelin::fusehost
