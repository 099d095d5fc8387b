// Reading and changing an item's attributes.
#include "core/driver2/item_identity.hpp"
#include "fskit/private/item_type.hpp"
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin {

namespace {

/// The time that is asked for, absent when it is to be left alone.
std::optional<std::timespec> wanted(const fskit::FSItemAttributes& request,
                                    fskit::FSItemAttributeSet bit, const std::timespec& time) {
    return request.isValid(bit) ? std::optional(time) : std::nullopt;
}

constexpr std::uint32_t kPermissionBits = 07777;

std::uint32_t dosAttributes(const NTFSAttributes& record) {
    namespace Bit = fskit::FSItemDOSAttribute;
    return (record.readOnly ? Bit::readOnly : 0) | (record.hidden ? Bit::hidden : 0) |
           (record.system ? Bit::system : 0) | (record.compressed ? Bit::compressed : 0);
}

/// Throws when a request asks for what cannot be had, before anything of it is applied: kEINVAL for
/// attributes that only the volume sets, kENOTSUP for flags that would be taken for protection and
/// do not stick.
void requireSettable(const fskit::FSItemAttributes& request) {
    namespace Bit = fskit::FSItemAttribute;
    constexpr fskit::FSItemAttributeSet kReadOnly =
        Bit::type | Bit::linkCount | Bit::allocSize | Bit::fileID | Bit::parentID;
    if ((request.validAttributes() & kReadOnly) != 0) {
        throw NTFSError(kEINVAL);
    }
    if (request.isValid(Bit::flags) && (request.flags() & fskit::kImmutableFlags) != 0) {
        throw NTFSError(kENOTSUP);
    }
}

} // namespace

void TavelinVolume::describe(const NTFSAttributes& record, std::uint64_t parent,
                             fskit::FSItemAttributes& result) const {
    // All calls before the first store: the stores then need not be kept in order with them.
    const std::uint32_t mode = Driver2::mode(record.type);
    const NTFSOwner owner = defaultOwner_ ? shownOwner(record) : NTFSOwner();
    const fskit::FSItemID fileID = Driver2::itemID(record.ino);
    const fskit::FSItemID parentID =
        record.ino == NTFSVolume::kRootIno ? fskit::FSItemIDParentOfRoot : Driver2::itemID(parent);
    result.setType(fskitType(record.type));
    result.setMode(owner.mode ? (mode & ~kPermissionBits) | *owner.mode : mode);
    result.setUid(owner.user.value_or(uid_));
    result.setGid(owner.group.value_or(gid_));
    result.setLinkCount(record.linkCount);
    result.setFlags(record.hidden ? fskit::kHiddenFlag : 0);
    result.setSize(record.size);
    result.setAllocSize(record.allocSize);
    result.setFileID(fileID);
    result.setParentID(parentID);
    result.setAccessTime(record.accessTime);
    result.setModifyTime(record.modifyTime);
    result.setChangeTime(record.changeTime);
    result.setBirthTime(record.birthTime);
    // NTFS does not record when an item came to its directory.
    result.setAddedTime(record.birthTime);
    result.setBackupTime({});
    result.setSupportsLimitedXAttrs(false);
    result.setNative({.reparseTag = record.reparseTag,
                      .dataState = static_cast<fskit::FSItemDataState>(record.dataState),
                      .volumeLink = record.volumeLink,
                      .device = record.device,
                      .dosAttributes = dosAttributes(record),
                      .sequence = record.sequence});
}

fskit::FSItemAttributes TavelinVolume::described(const std::optional<NTFSAttributes>& record,
                                                 std::uint64_t parent) const {
    fskit::FSItemAttributes result;
    if (record) {
        describe(*record, parent, result);
    }
    return result;
}

void TavelinVolume::apply(fskit::FSItemSetAttributesRequest& request, const NItem& item) {
    namespace Bit = fskit::FSItemAttribute;
    constexpr fskit::FSItemAttributeSet kTimes =
        Bit::accessTime | Bit::modifyTime | Bit::changeTime | Bit::birthTime;
    if ((request.validAttributes() & (Bit::size | Bit::flags | kTimes)) != 0) {
        requireChangeable();
    }
    // The size of a directory or a link is not for a host to set, and a request to is no error. An
    // Interix link is a file to the bridge: truncated, it would be no link any more.
    if (request.isValid(Bit::size) && ntfs->attributes(item.reference).type == NTFSItemType::file) {
        ntfs->truncate(item.reference, request.size());
        request.consumedAttributes |= Bit::size;
    }
    if ((request.validAttributes() & kTimes) != 0) {
        ntfs->setTimes(item.reference, wanted(request, Bit::accessTime, request.accessTime()),
                       wanted(request, Bit::modifyTime, request.modifyTime()),
                       wanted(request, Bit::changeTime, request.changeTime()),
                       wanted(request, Bit::birthTime, request.birthTime()));
        request.consumedAttributes |= request.validAttributes() & kTimes;
    }
    if (request.isValid(Bit::flags)) {
        ntfs->setHidden(item.reference, (request.flags() & fskit::kHiddenFlag) != 0);
        // A new item is made all the same, and the host sees that it is not protected.
        const bool isKept = (request.flags() & fskit::kImmutableFlags) == 0;
        request.consumedAttributes |= isKept ? Bit::flags : fskit::FSItemAttributeSet{0};
    }
    constexpr fskit::FSItemAttributeSet kOwner = Bit::mode | Bit::uid | Bit::gid;
    const fskit::FSItemAttributeSet owner =
        request.validAttributes() & kOwner & ~request.consumedAttributes;
    if (defaultOwner_ && owner != 0) {
        requireChangeable();
        // The kernel's drivers go by an item's owner and mode only where it has all three.
        NTFSOwner wanted = shownOwner(ntfs->attributes(item.reference));
        const NTFSOwner given = ownerIn(request);
        wanted.user = given.user ? given.user : wanted.user;
        wanted.group = given.group ? given.group : wanted.group;
        wanted.mode = given.mode ? given.mode : wanted.mode;
        ntfs->setOwner(item.reference, wanted);
    }
    // Where no owners are kept they are accepted and ignored: NTFS has none that a host could set.
    request.consumedAttributes |= owner;
}

NTFSOwner TavelinVolume::ownerIn(const fskit::FSItemAttributes& request) const {
    namespace Bit = fskit::FSItemAttribute;
    const auto valid = [&](fskit::FSItemAttributeSet bit, std::uint32_t value) {
        return defaultOwner_ && request.isValid(bit) ? std::optional(value) : std::nullopt;
    };
    return {.user = valid(Bit::uid, request.uid()),
            .group = valid(Bit::gid, request.gid()),
            .mode = valid(Bit::mode, request.mode() & kPermissionBits)};
}

NTFSOwner TavelinVolume::shownOwner(const NTFSAttributes& record) const {
    const DefaultOwner others = defaultOwner_.value_or(DefaultOwner());
    std::uint32_t mode = 0777;
    if (record.type == NTFSItemType::directory) {
        mode &= ~others.directoryMask;
    } else if (record.type != NTFSItemType::symlink) {
        mode &= ~others.fileMask;
    }
    return {.user = record.owner.user.value_or(others.user),
            .group = record.owner.group.value_or(others.group),
            .mode = record.type == NTFSItemType::symlink ? 0777 : record.owner.mode.value_or(mode)};
}

Outcome<void> TavelinVolume::keepOwners(const DefaultOwner& others) {
    return request<"keepOwners">([&] {
        ntfs->readOwners();
        defaultOwner_ = others;
    });
}

Outcome<fskit::FSItemAttributes>
TavelinVolume::getAttributes(const fskit::FSItemGetAttributesRequest& /*desired*/,
                             const fskit::FSItemRef& item) {
    return request<"getAttributes">([&] {
        const NItem& own = n(item);
        fskit::FSItemAttributes result;
        describe(ntfs->attributes(own.reference), own.parent, result);
        return result;
    });
}

Outcome<fskit::FSItemAttributes> TavelinVolume::attributesBeside(const fskit::FSItemRef& item) {
    return attempt<"getAttributes">([&] {
        const NItem& own = n(item);
        return described(ntfs->attributes(own.reference), own.parent);
    });
}

fskit::FSItemAttributes TavelinVolume::presumed(const fskit::FSItemRef& item,
                                                fskit::FSItemType type) const {
    const NItem& own = n(item);
    NTFSAttributes record;
    record.ino = own.ino;
    record.type = static_cast<NTFSItemType>(type);
    record.linkCount = 1;
    std::timespec_get(&record.modifyTime, TIME_UTC);
    record.accessTime = record.changeTime = record.birthTime = record.modifyTime;
    return described(record, own.parent);
}

Outcome<fskit::FSItemAttributes>
TavelinVolume::setAttributes(fskit::FSItemSetAttributesRequest& changes,
                             const fskit::FSItemRef& item) {
    return request<"setAttributes">([&] {
        NItem& own = n(item);
        requireSettable(changes);
        own.isUnflushed.store(true, std::memory_order_relaxed); // also when it fails half-way
        apply(changes, own);
        fskit::FSItemAttributes result;
        describe(ntfs->attributes(own.reference), own.parent, result);
        return result;
    });
}

Outcome<fskit::FSLookupItemResult>
TavelinVolume::attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory) {
    return request<"getAttributes">([&] {
        const NItem& parent = n(directory);
        const std::uint64_t moves = moves_;
        const NTFSAttributes record = ntfs->attributes(Driver2::ino(entry));
        return found(record, parentOf(record.reference(), parent.ino), fskit::FSFileName(), moves);
    });
}

Outcome<fskit::FSLookupItemResult> TavelinVolume::itemAt(std::uint64_t reference) {
    return request<"getAttributes">([&] {
        const std::uint64_t moves = moves_;
        const std::uint64_t above = recordNumber(ntfs->parent(reference));
        return found(ntfs->attributes(reference), above, fskit::FSFileName(), moves);
    });
}

Outcome<fskit::FSLookupItemResult> TavelinVolume::directoryOf(const fskit::FSItemRef& item) {
    return request<"getAttributes">([&] {
        const std::uint64_t moves = moves_;
        const std::uint64_t directory = ntfs->parent(n(item).reference);
        const std::uint64_t above = recordNumber(ntfs->parent(directory));
        return found(ntfs->attributes(directory), above, fskit::FSFileName(), moves);
    });
}

Outcome<std::size_t> TavelinVolume::countNames(const fskit::FSItemRef& item) {
    return request<"getAttributes">(
        [&] { return std::size_t{ntfs->countNames(n(item).reference)}; });
}

} // namespace tavelin
