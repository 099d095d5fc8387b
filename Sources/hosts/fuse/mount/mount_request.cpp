#include "hosts/fuse/mount/mount_request.hpp"

#include <algorithm>
#include <array>

namespace tavelin::fusehost {

namespace {

using namespace std::string_view_literals;

// mount(8) hands these on although they are its own, or they ask for what is so anyway.
constexpr std::array kIgnored = {
    "rw"sv,    "defaults"sv, "auto"sv,  "noauto"sv,  "user"sv,       "nouser"sv,
    "users"sv, "owner"sv,    "group"sv, "_netdev"sv, "nofail"sv,     "relatime"sv,
    "async"sv, "nosuid"sv,   "nodev"sv, "loop"sv,    "big_writes"sv, "power_save"sv,
};

constexpr std::array kForKernel = {
    "noatime"sv, "strictatime"sv, "nodiratime"sv, "noexec"sv, "exec"sv,
    "sync"sv,    "dirsync"sv,     "suid"sv,       "dev"sv,    "default_permissions"sv,
};

template<size_t n>
bool contains(const std::array<std::string_view, n>& words, std::string_view word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// True when the word has been dealt with.
bool apply(std::string_view word, MountRequest& request) {
    if (word == "ro" || word == "rdonly") {
        request.readOnly = true;
        request.volumeOptions.emplace_back(word);
    } else if (word == "windows_names" || word == "symlinks=windows" ||
               word == "symlinks=interix" || word == "nocheck") {
        request.volumeOptions.emplace_back(word);
    } else if (word == "allow_other") {
        request.allowOther = true;
    } else if (word == "low_latency") {
        request.lowLatency = true;
    } else if (contains(kForKernel, word)) {
        request.kernelOptions.emplace_back(word);
    } else {
        return contains(kIgnored, word) || word.starts_with("x-") || word.starts_with("comment=");
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

} // namespace tavelin::fusehost
