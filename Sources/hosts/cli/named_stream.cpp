#include "hosts/cli/named_stream.hpp"

#include "hosts/cli/failure.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin::cli {

std::optional<std::pair<std::string, std::string>> splitStream(const std::string& path) {
    const std::size_t colon = path.rfind(':');
    const std::size_t slash = path.rfind('/');
    if (colon == std::string::npos || colon == 0 || colon + 1 == path.size() ||
        (slash != std::string::npos && slash > colon)) {
        return std::nullopt;
    }
    return std::pair(path.substr(0, colon), path.substr(colon + 1));
}

Named resolveNamed(VolumeClient& volume, const std::string& path, LastLink last) {
    auto found = resolve(volume, path, last);
    if (found) {
        const std::uint64_t size = found->attributes.size();
        return {std::move(found).get(), std::nullopt, size};
    }
    if (numberOf(found.error()) == kENOENT) {
        if (auto owner = ownerOfStream(volume, path)) {
            std::string name = splitStream(path)->second;
            const auto size = volume.xattrSize(owner->item, name);
            if (size || numberOf(size.error()) != kENOATTR) {
                return {std::move(*owner), std::move(name), valueOf(size, path)};
            }
        }
    }
    throwVolumeError(path, found.error());
}

std::optional<Found> ownerOfStream(VolumeClient& volume, const std::string& path) {
    const auto parts = splitStream(path);
    if (!parts || resolve(volume, path, LastLink::keep)) {
        return std::nullopt;
    }
    auto owner = resolve(volume, parts->first);
    return owner ? std::optional(std::move(owner).get()) : std::nullopt;
}

std::vector<std::byte> readStream(VolumeClient& volume, const Named& named,
                                  const std::string& path) {
    return valueOf(volume.getXattr(named.found.item, *named.stream), path);
}

JSONObject streamObject(const std::string& path, const std::string& name, std::uint64_t size) {
    return JSONObject()
        .add("path", rooted(path))
        .add("name", name)
        .add("type", "stream")
        .add("size", size);
}

} // namespace tavelin::cli
