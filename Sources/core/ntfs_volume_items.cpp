// Looking items up, describing and listing them.
#include "core/ntfs_volume.hpp"
#include "core/private/bridge_attributes.hpp"
#include "core/private/bridge_text.hpp"
#include "core/private/listing_box.hpp"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace tavelin {

namespace {

std::optional<ntb_time> bridgeTime(const std::optional<std::timespec>& time) noexcept {
    if (!time) {
        return std::nullopt;
    }
    return ntb_time{.seconds = time->tv_sec, .nanoseconds = time->tv_nsec};
}

const ntb_time* addressOf(const std::optional<ntb_time>& time) noexcept {
    return time ? &*time : nullptr;
}

using ListBox = ListingBox<NTFSListing>;

std::int32_t appendEntry(void* context, const char* name, std::uint64_t ino, std::uint16_t sequence,
                         std::uint32_t type) noexcept {
    return ListBox::of(context, name).append([&](NTFSListing& listing) {
        listing.append(name, ino, sequence, itemTypeFromBridge(type));
    });
}

/// Ends the listing once there are enough.
struct PageBox {
    ListBox box;
    std::size_t most;
};

std::int32_t appendToPage(void* context, const char* name, std::uint64_t ino,
                          std::uint16_t sequence, std::uint32_t type) noexcept {
    auto* const page = static_cast<PageBox*>(context);
    const std::int32_t failed = appendEntry(&page->box, name, ino, sequence, type);
    return failed != 0 || page->box.items.size() >= page->most ? 1 : 0;
}

} // namespace

std::uint64_t NTFSVolume::lookup(std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    std::uint64_t ino = 0;
    check(locked([&](ntb_vol* vol) { return ntb_lookup(vol, parent, text.cString(), &ino); }));
    return ino;
}

std::uint64_t NTFSVolume::resolve(std::string_view path) {
    std::uint64_t current = kRootIno;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view component = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view{} : path.substr(slash + 1);
        if (!component.empty()) {
            current = lookup(component, current);
        }
    }
    return current;
}

NTFSAttributes NTFSVolume::attributes(std::uint64_t ino) {
    ntb_attr record{};
    check(locked([&](ntb_vol* vol) { return ntb_getattr(vol, ino, &record); }));
    return attributesOf(record);
}

std::uint64_t NTFSVolume::parent(std::uint64_t ino) {
    std::uint64_t directory = 0;
    check(locked([&](ntb_vol* vol) { return ntb_parent(vol, ino, &directory); }));
    return directory;
}

std::optional<NTFSAttributes> NTFSVolume::find(std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    ntb_attr record{};
    const std::int32_t result = locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const std::int32_t error = ntb_lookup(vol, parent, text.cString(), &ino);
        return error != 0 ? error : ntb_getattr(vol, ino, &record);
    });
    // A name that does not exist is the usual answer before one is made: no reason to throw.
    if (fromHost(result) == kENOENT) {
        return std::nullopt;
    }
    check(result);
    return attributesOf(record);
}

std::optional<NTFSAttributes> NTFSVolume::findInAnyCase(std::string& name, std::uint64_t parent) {
    const BridgeText text(name);
    ntb_attr record{};
    char* stored = nullptr;
    const std::int32_t result = locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const std::int32_t error =
            ntb_lookup_in_any_case(vol, parent, text.cString(), &ino, &stored);
        return error != 0 ? error : ntb_getattr(vol, ino, &record);
    });
    const BridgeOwned<char> owned(stored);
    if (fromHost(result) == kENOENT) {
        return std::nullopt; // as in find()
    }
    check(result);
    name = stored;
    return attributesOf(record);
}

NTFSListing NTFSVolume::list(std::uint64_t directory) {
    ListBox box;
    const std::int32_t result =
        locked([&](ntb_vol* vol) { return ntb_readdir(vol, directory, appendEntry, &box); });
    box.rethrowFailure();
    check(result);
    box.items.finish();
    return std::move(box.items);
}

NTFSListing NTFSVolume::listSorted(std::uint64_t directory, NTFSListPosition& position,
                                   std::size_t most) {
    PageBox page{.box = {}, .most = most};
    ntb_position place{};
    static_assert(sizeof place.name == std::tuple_size_v<decltype(position.name)>);
    place.length = position.length;
    std::copy(position.name.begin(), position.name.end(), place.name);
    const std::int32_t result = locked([&](ntb_vol* vol) {
        return ntb_readdir_sorted(vol, directory, &place, appendToPage, &page);
    });
    page.box.rethrowFailure();
    check(result);
    position.length = place.length;
    std::copy(std::begin(place.name), std::end(place.name), position.name.begin());
    page.box.items.finish();
    return std::move(page.box.items);
}

std::string NTFSVolume::shortName(std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    char* alias = nullptr;
    check(
        locked([&](ntb_vol* vol) { return ntb_short_name(vol, parent, text.cString(), &alias); }));
    const BridgeOwned<char> owned(alias);
    return alias;
}

void NTFSVolume::setTimes(std::uint64_t ino, const std::optional<std::timespec>& access,
                          const std::optional<std::timespec>& modify,
                          const std::optional<std::timespec>& change,
                          const std::optional<std::timespec>& birth) {
    const auto a = bridgeTime(access);
    const auto m = bridgeTime(modify);
    const auto c = bridgeTime(change);
    const auto b = bridgeTime(birth);
    check(locked([&](ntb_vol* vol) {
        return ntb_set_times(vol, ino, addressOf(a), addressOf(m), addressOf(c), addressOf(b));
    }));
}

void NTFSVolume::setHidden(std::uint64_t ino, bool hidden) {
    check(locked([&](ntb_vol* vol) { return ntb_set_hidden(vol, ino, hidden ? 1 : 0); }));
}

void NTFSVolume::setOwner(std::uint64_t ino, const NTFSOwner& owner) {
    const ntb_owner record = bridgeOwner(owner);
    check(locked([&](ntb_vol* vol) { return ntb_set_owner(vol, ino, &record); }));
}

} // namespace tavelin
