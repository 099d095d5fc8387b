#include "extension/values.hpp"

#include "extension/memory.hpp"
#include "extension/text.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin {

fskit::FSFileName toCore(FSFileName *name) {
    NSData *data = name.data;
    return fskit::FSFileName({static_cast<const char *>(data.bytes), data.length});
}

fskit::FSTaskOptions toCore(FSTaskOptions *options) {
    fskit::FSTaskOptions words;
    for (NSString *word in options.taskOptions) {
        words.taskOptions.push_back(toText(word));
    }
    return words;
}

fskit::FSItemGetAttributesRequest toCore(FSItemGetAttributesRequest *request) {
    return {static_cast<fskit::FSItemAttributeSet>(request.wantedAttributes)};
}

fskit::FSItemSetAttributesRequest toCore(FSItemSetAttributesRequest *request) {
    fskit::FSItemSetAttributesRequest changes;
    const auto copy = [&](FSItemAttribute attribute, auto set) {
        if ([request isValid:attribute]) {
            set();
        }
    };
    copy(FSItemAttributeType,
         [&] { changes.setType(static_cast<fskit::FSItemType>(request.type)); });
    copy(FSItemAttributeMode, [&] { changes.setMode(request.mode); });
    copy(FSItemAttributeLinkCount, [&] { changes.setLinkCount(request.linkCount); });
    copy(FSItemAttributeUID, [&] { changes.setUid(request.uid); });
    copy(FSItemAttributeGID, [&] { changes.setGid(request.gid); });
    copy(FSItemAttributeFlags, [&] { changes.setFlags(request.flags); });
    copy(FSItemAttributeSize, [&] { changes.setSize(request.size); });
    copy(FSItemAttributeAllocSize, [&] { changes.setAllocSize(request.allocSize); });
    copy(FSItemAttributeFileID, [&] { changes.setFileID(request.fileID); });
    copy(FSItemAttributeParentID, [&] { changes.setParentID(request.parentID); });
    copy(FSItemAttributeAccessTime, [&] { changes.setAccessTime(request.accessTime); });
    copy(FSItemAttributeModifyTime, [&] { changes.setModifyTime(request.modifyTime); });
    copy(FSItemAttributeChangeTime, [&] { changes.setChangeTime(request.changeTime); });
    copy(FSItemAttributeBirthTime, [&] { changes.setBirthTime(request.birthTime); });
    copy(FSItemAttributeBackupTime, [&] { changes.setBackupTime(request.backupTime); });
    copy(FSItemAttributeAddedTime, [&] { changes.setAddedTime(request.addedTime); });
    return changes;
}

fskit::Error toCore(NSError *error) {
    return {toText(error.domain), error.code, toText(error.localizedDescription)};
}

std::span<const std::byte> bytesOf(NSData *data) {
    return {static_cast<const std::byte *>(data.bytes), data.length};
}

FSFileName *toFSKit(const fskit::FSFileName &name) {
    return made([[FSFileName alloc] initWithBytes:name.data().data() length:name.data().size()]);
}

NSArray<FSFileName *> *toFSKit(const std::vector<fskit::FSFileName> &names) {
    NSMutableArray<FSFileName *> *array =
        made([[NSMutableArray alloc] initWithCapacity:names.size()]);
    for (const fskit::FSFileName &name : names) {
        [array addObject:toFSKit(name)];
    }
    return array;
}

FSItemAttributes *toFSKit(const fskit::FSItemAttributes &attributes) {
    namespace has = fskit::FSItemAttribute;
    FSItemAttributes *result = made([[FSItemAttributes alloc] init]);
    const auto copy = [&](fskit::FSItemAttributeSet attribute, auto set) {
        if (attributes.isValid(attribute)) {
            set();
        }
    };
    copy(has::type, [&] { result.type = static_cast<FSItemType>(attributes.type()); });
    copy(has::mode, [&] { result.mode = attributes.mode(); });
    copy(has::linkCount, [&] { result.linkCount = attributes.linkCount(); });
    copy(has::uid, [&] { result.uid = attributes.uid(); });
    copy(has::gid, [&] { result.gid = attributes.gid(); });
    copy(has::flags, [&] { result.flags = attributes.flags(); });
    copy(has::size, [&] { result.size = attributes.size(); });
    copy(has::allocSize, [&] { result.allocSize = attributes.allocSize(); });
    copy(has::fileID, [&] { result.fileID = static_cast<FSItemID>(attributes.fileID()); });
    copy(has::parentID, [&] { result.parentID = static_cast<FSItemID>(attributes.parentID()); });
    copy(has::accessTime, [&] { result.accessTime = attributes.accessTime(); });
    copy(has::modifyTime, [&] { result.modifyTime = attributes.modifyTime(); });
    copy(has::changeTime, [&] { result.changeTime = attributes.changeTime(); });
    copy(has::birthTime, [&] { result.birthTime = attributes.birthTime(); });
    copy(has::backupTime, [&] { result.backupTime = attributes.backupTime(); });
    copy(has::addedTime, [&] { result.addedTime = attributes.addedTime(); });
    copy(has::supportsLimitedXAttrs,
         [&] { result.supportsLimitedXAttrs = attributes.supportsLimitedXAttrs(); });
    copy(has::inhibitKernelOffloadedIO,
         [&] { result.inhibitKernelOffloadedIO = attributes.inhibitKernelOffloadedIO(); });
    return result;
}

NSError *toFSKit(const fskit::Error &error) {
    if (error.isPOSIX()) {
        return fs_errorForPOSIXError(static_cast<int>(error.code()));
    }
    return [NSError errorWithDomain:toNSString(error.domain()) code:error.code() userInfo:nil];
}

NSData *toFSKit(const std::vector<std::byte> &data) {
    return made([[NSData alloc] initWithBytes:data.data() length:data.size()]);
}

NSUUID *toFSKit(const fskit::UUID &uuid) {
    fskit::UUID bytes = uuid; // GNUstep declares the bytes as writable
    return made([[NSUUID alloc] initWithUUIDBytes:bytes.data()]);
}

FSProbeResult *toFSKit(const fskit::FSProbeResult &result) {
    if (result.result != fskit::FSMatchResult::usable || !result.containerID) {
        return [FSProbeResult notRecognizedProbeResult];
    }
    FSContainerIdentifier *identifier =
        made([[FSContainerIdentifier alloc] initWithUUID:toFSKit(result.containerID->uuid)]);
    return [FSProbeResult usableProbeResultWithName:toNSString(result.name.value_or(""))
                                        containerID:identifier];
}

FSVolumeSupportedCapabilities *toFSKit(const fskit::FSVolumeSupportedCapabilities &capabilities) {
    FSVolumeSupportedCapabilities *result = made([[FSVolumeSupportedCapabilities alloc] init]);
    result.supportsPersistentObjectIDs = capabilities.supportsPersistentObjectIDs;
    result.supportsSymbolicLinks = capabilities.supportsSymbolicLinks;
    result.supportsHardLinks = capabilities.supportsHardLinks;
    result.supportsSparseFiles = capabilities.supportsSparseFiles;
    result.supportsFastStatFS = capabilities.supportsFastStatFS;
    result.supports2TBFiles = capabilities.supports2TBFiles;
    result.supportsHiddenFiles = capabilities.supportsHiddenFiles;
    result.supports64BitObjectIDs = capabilities.supports64BitObjectIDs;
    result.doesNotSupportImmutableFiles = capabilities.doesNotSupportImmutableFiles;
    result.doesNotSupportSettingFilePermissions = capabilities.doesNotSupportSettingFilePermissions;
    result.caseFormat = static_cast<FSVolumeCaseFormat>(capabilities.caseFormat);
    return result;
}

FSContainerStatus *nothingLoaded() {
    return [FSContainerStatus notReadyWithStatus:fs_errorForPOSIXError(kEAGAIN)];
}

FSStatFSResult *toFSKit(const fskit::FSStatFSResult &statistics) {
    FSStatFSResult *result = made([[FSStatFSResult alloc]
        initWithFileSystemTypeName:toNSString(statistics.fileSystemTypeName)]);
    result.blockSize = statistics.blockSize;
    result.ioSize = statistics.ioSize;
    result.totalBlocks = statistics.totalBlocks;
    result.availableBlocks = statistics.availableBlocks;
    result.freeBlocks = statistics.freeBlocks;
    result.usedBlocks = statistics.usedBlocks;
    result.totalBytes = statistics.totalBytes;
    result.availableBytes = statistics.availableBytes;
    result.freeBytes = statistics.freeBytes;
    result.usedBytes = statistics.usedBytes;
    result.totalFiles = statistics.totalFiles;
    result.freeFiles = statistics.freeFiles;
    return result;
}

} // namespace tavelin
