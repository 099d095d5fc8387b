#include "core/driver2/mount_options.hpp"

#include <cstddef>
#include <string_view>

namespace tavelin::Driver2 {

namespace {

constexpr std::string_view kOptionFlag = "-o";

bool asksForReadOnly(std::string_view word) noexcept {
    return word == "ro" || word == "rdonly";
}

void applyList(MountOptions& options, std::string_view list) noexcept {
    while (!list.empty()) {
        const std::size_t comma = list.find(',');
        const std::string_view piece = list.substr(0, comma);
        list = comma == std::string_view::npos ? std::string_view{} : list.substr(comma + 1);
        if (asksForReadOnly(piece)) {
            options.readOnly = true;
        } else if (piece == "windows_names" || piece == "nowindows_names") {
            options.windowsNames = piece == "windows_names";
        } else if (piece == "normalize_names" || piece == "nonormalize_names") {
            options.normalizeNames = piece == "normalize_names";
        } else if (piece == "ignore_case" || piece == "noignore_case") {
            options.ignoreCase = piece == "ignore_case";
        } else if (piece == "nocheck") {
            options.noCheck = true;
        } else if (piece == "symlinks=windows" || piece == "symlinks=interix") {
            options.windowsLinks = piece == "symlinks=windows";
        }
    }
}

} // namespace

MountOptions::MountOptions(std::span<const std::string> arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == kOptionFlag && i + 1 < arguments.size()) {
            applyList(*this, arguments[++i]);
        } else if (argument.starts_with(kOptionFlag)) {
            applyList(*this, argument.substr(kOptionFlag.size()));
        } else if (argument == "-r" || argument == "--rdonly" || asksForReadOnly(argument)) {
            readOnly = true;
        }
    }
}

} // namespace tavelin::Driver2
