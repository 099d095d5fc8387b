// Extended attributes: named streams.
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"

namespace tavelin {

namespace {

NTFSVolume::XattrPolicy volumePolicy(fskit::FSSetXattrPolicy policy) noexcept {
    switch (policy) {
    case fskit::FSSetXattrPolicy::mustCreate:
        return NTFSVolume::XattrPolicy::mustCreate;
    case fskit::FSSetXattrPolicy::mustReplace:
        return NTFSVolume::XattrPolicy::mustReplace;
    default:
        return NTFSVolume::XattrPolicy::always;
    }
}

} // namespace

Outcome<std::vector<std::byte>> TavelinVolume::getXattr(const fskit::FSFileName& named,
                                                        const fskit::FSItemRef& item) {
    return request<"getXattr">([&] {
        const std::uint64_t reference = n(item).reference;
        return ntfs->xattr(name(named), reference);
    });
}

Outcome<std::size_t> TavelinVolume::xattrSize(const fskit::FSFileName& named,
                                              const fskit::FSItemRef& item) {
    return request<"getXattr">([&] {
        const std::uint64_t reference = n(item).reference;
        return static_cast<std::size_t>(ntfs->xattrSize(name(named), reference));
    });
}

Outcome<void> TavelinVolume::setXattr(const fskit::FSFileName& named,
                                      const std::optional<std::span<const std::byte>>& value,
                                      const fskit::FSItemRef& item,
                                      fskit::FSSetXattrPolicy policy) {
    return request<"setXattr">([&] {
        NItem& own = n(item);
        const std::uint64_t reference = own.reference;
        requireChangeable();
        own.isUnflushed.store(true, std::memory_order_relaxed);
        if (policy == fskit::FSSetXattrPolicy::remove) {
            ntfs->removeXattr(name(named), reference);
        } else {
            ntfs->setXattr(name(named), reference, value.value_or(std::span<const std::byte>()),
                           volumePolicy(policy));
        }
    });
}

Outcome<std::vector<fskit::FSFileName>> TavelinVolume::listXattrs(const fskit::FSItemRef& item) {
    return request<"listXattrs">([&] {
        std::vector<fskit::FSFileName> list;
        for (const std::string& attribute : ntfs->xattrNames(n(item).reference)) {
            list.emplace_back(attribute);
        }
        return list;
    });
}

} // namespace tavelin
