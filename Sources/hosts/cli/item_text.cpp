#include "hosts/cli/item_text.hpp"

#include "core/reparse_tags.hpp"
#include "hosts/cli/text.hpp"

#include <fmt/format.h>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

/// The JSON value for the place of an item's bytes. Programs rely on the words.
std::string_view dataName(fskit::FSItemDataState state) {
    switch (state) {
    case fskit::FSItemDataState::systemCompressed:
        return "system-compressed";
    case fskit::FSItemDataState::elsewhere:
        return "elsewhere";
    case fskit::FSItemDataState::encrypted:
        return "encrypted";
    case fskit::FSItemDataState::here:
        break;
    }
    return "here";
}

} // namespace

bool isHidden(const fskit::FSItemAttributes& attributes) noexcept {
    return (attributes.native().dosAttributes & fskit::FSItemDOSAttribute::hidden) != 0;
}

std::vector<std::string> dosAttributeNames(const fskit::FSItemAttributes& attributes) {
    namespace Bit = fskit::FSItemDOSAttribute;
    static constexpr std::pair<std::uint32_t, const char*> kNames[] = {
        {Bit::readOnly, "read-only"},
        {Bit::hidden, "hidden"},
        {Bit::system, "system"},
        {Bit::compressed, "compressed"},
    };
    static_assert((kNames[0].first & kNames[1].first) == 0 &&
                  (kNames[2].first & kNames[3].first) == 0);
    std::vector<std::string> names;
    for (const auto& [bit, name] : kNames) {
        if ((attributes.native().dosAttributes & bit) != 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

std::string_view nativeKind(const fskit::FSItemAttributes& attributes) {
    const fskit::FSItemNativeAttributes& native = attributes.native();
    if (native.dataState == fskit::FSItemDataState::encrypted) {
        return "encrypted";
    }
    const bool isPlainType =
        attributes.type() == FSItemType::file || attributes.type() == FSItemType::directory;
    return isPlainType && native.reparseTag != 0 ? reparseTag(native.reparseTag).name : "";
}

bool isDevice(FSItemType type) noexcept {
    return type == FSItemType::charDevice || type == FSItemType::blockDevice;
}

bool isSpecial(FSItemType type) noexcept {
    return isDevice(type) || type == FSItemType::fifo || type == FSItemType::socket;
}

std::string deviceText(std::uint64_t device) {
    return fmt::format("{}, {}", device >> 32, device & 0xffffffff);
}

JSONObject itemObject(const std::string& path, const fskit::FSItemAttributes& attributes,
                      const std::optional<std::string>& target, const std::string& shortName) {
    const fskit::FSItemNativeAttributes& native = attributes.native();
    JSONObject result;
    result.add("path", path).add("name", lastComponent(path));
    if (!shortName.empty()) {
        result.add("shortName", shortName);
    }
    result.add("type", typeName(attributes.type()))
        .add("size", attributes.size())
        .add("allocated", attributes.allocSize())
        .add("id", attributes.fileID())
        .add("links", attributes.linkCount())
        .add("mode", fmt::format("{:04o}", attributes.mode() & 07777))
        .add("dosAttributes", dosAttributeNames(attributes))
        .add("modified", isoTime(attributes.modifyTime()))
        .add("accessed", isoTime(attributes.accessTime()))
        .add("changed", isoTime(attributes.changeTime()))
        .add("created", isoTime(attributes.birthTime()))
        .add("data", dataName(native.dataState));
    if (target) {
        result.add("target", *target);
    }
    if (native.reparseTag != 0) {
        result.add("reparseTag", fmt::format("0x{:08x}", native.reparseTag))
            .add("reparseKind", reparseTag(native.reparseTag).name);
    }
    if (isDevice(attributes.type())) {
        result.add("device", deviceText(native.device));
    }
    return result;
}

} // namespace tavelin::cli
