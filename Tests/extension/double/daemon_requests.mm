// Requests to an active volume.
#import "extension/double/asking.h"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

// How FSKit calls an open file that was removed is not known.
constexpr const char *kEmulatedName = ".removed-while-open";

FSItemSetAttributesRequest *noAttributes() {
    return made([[FSItemSetAttributesRequest alloc] init]);
}

FSItemGetAttributesRequest *allAttributes() {
    return made([[FSItemGetAttributesRequest alloc] init]);
}

} // namespace

// clang-format takes the parts of a message here for labels.
// clang-format off

// Sends a message, given without its last parts, to the volume of the release. Its reply block
// takes `answer` from macOS 27.0 on, and `earlier` before. The context came with the former, and
// reading and writing have none.
#define SEND_WITH(context, answer, earlier, ...)                                                   \
    (hasHandlers()                                                                                 \
         ? ask(answer(), [&](auto reply) { [handlers() __VA_ARGS__ context replyHandler:reply]; }) \
         : ask(earlier(), [&](auto reply) { [first() __VA_ARGS__ replyHandler:reply]; }))
#define SEND(...) SEND_WITH(context:context_.get(), __VA_ARGS__)
#define SEND_WITHOUT_CONTEXT(...) SEND_WITH(, __VA_ARGS__)

Answer Daemon::lookup(FSItem *directory, const std::string &name) {
    return SEND(Gets<FSLookupItemResult *>, GetsNamedItem,
                lookupItemNamed:fileName(name) inDirectory:directory);
}

Answer Daemon::create(FSItem *directory, const std::string &name, FSItemType type) {
    FSItemSetAttributesRequest *request = noAttributes();
    request.mode = 0644;
    Answer answer = SEND(Gets<FSCreateItemResult *>, GetsNamedItem,
                         createItemNamed:fileName(name) type:type inDirectory:directory
                              attributes:request);
    answer.number = static_cast<std::uint64_t>(request.consumedAttributes);
    return answer;
}

Answer Daemon::link(FSItem *directory, const std::string &name, const std::string &target) {
    return SEND(Gets<FSCreateSymlinkResult *>, GetsNamedItem,
                createSymbolicLinkNamed:fileName(name) inDirectory:directory
                             attributes:noAttributes() linkContents:fileName(target));
}

Answer Daemon::hardLink(FSItem *item, FSItem *directory, const std::string &name) {
    return SEND(Gets<FSCreateLinkResult *>, Gets<FSFileName *>,
                createLinkToItem:item named:fileName(name) inDirectory:directory);
}

Answer Daemon::removeName(FSItem *item, FSItem *directory, const std::string &name) {
    return SEND(Gets<FSRemoveItemResult *>, Done,
                removeItem:item named:fileName(name) fromDirectory:directory);
}

Answer Daemon::rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                      const std::string &newName, FSItem *over) {
    return SEND(Gets<FSRenameItemResult *>, Gets<FSFileName *>,
                renameItem:item inDirectory:from named:fileName(name)
                 toNewName:fileName(newName) inDirectory:to overItem:over);
}

Answer Daemon::readLink(FSItem *item) {
    return SEND(Gets<FSReadSymlinkResult *>, Gets<FSFileName *>, readSymbolicLink:item);
}

Answer Daemon::getAttributes(FSItem *item) {
    return SEND(Gets<FSGetAttributesResult *>, Gets<FSItemAttributes *>,
                getAttributes:allAttributes() ofItem:item);
}

Answer Daemon::setSize(FSItem *item, std::uint64_t size) {
    FSItemSetAttributesRequest *request = noAttributes();
    request.size = size;
    request.supportsLimitedXAttrs = YES; // never consumed
    Answer answer = SEND(Gets<FSSetAttributesResult *>, Gets<FSItemAttributes *>,
                         setAttributes:request onItem:item);
    answer.number = static_cast<std::uint64_t>(request.consumedAttributes);
    return answer;
}

Answer Daemon::write(FSItem *item, const std::string &data) {
    NSData *bytes = [NSData dataWithBytes:data.data() length:data.size()];
    return SEND_WITHOUT_CONTEXT(Gets<FSWriteFileResult *>, Gets<size_t>,
                                writeContents:bytes toFile:item atOffset:0);
}

Answer Daemon::read(FSItem *item, size_t length) {
    ByteBuffer *buffer = [ByteBuffer bufferOfLength:length];
    Answer answer = SEND_WITHOUT_CONTEXT(Gets<FSReadFileResult *>, Gets<size_t>,
                                         readFromFile:item offset:0 length:length
                                           intoBuffer:buffer);
    answer.object = Strong<id>(buffer);
    return answer;
}

Answer Daemon::preallocate(FSItem *item, size_t length, FSPreallocateFlags flags) {
    flags |= FSPreallocateFlagsFromEOF; // as on every call of FSKit at present
    return SEND(Gets<FSPreallocateResult *>, Gets<size_t>,
                preallocateSpaceForItem:item atOffset:0 length:length flags:flags);
}

Answer Daemon::getXattr(FSItem *item, const std::string &name) {
    return SEND(Gets<FSGetXattrResult *>, Gets<NSData *>,
                getXattrNamed:fileName(name) ofItem:item);
}

Answer Daemon::setXattr(FSItem *item, const std::string &name, NSData *value,
                        FSSetXattrPolicy policy) {
    return SEND(Gets<FSSetXattrResult *>, Done,
                setXattrNamed:fileName(name) toData:value onItem:item policy:policy);
}

Answer Daemon::listXattrs(FSItem *item) {
    return SEND(Gets<FSListXattrsResult *>, Gets<NSArray<FSFileName *> *>, listXattrsOfItem:item);
}

Answer Daemon::setVolumeName(const std::string &name) {
    return SEND(Gets<FSVolumeRenameResult *>, Gets<FSFileName *>, setVolumeName:fileName(name));
}

Answer Daemon::open(FSItem *item) {
    open_.emplace(item, nil);
    return SEND(Done, Done, openItem:item withModes:FSVolumeOpenModesRead | FSVolumeOpenModesWrite);
}

Answer Daemon::close(FSItem *item) {
    Answer closed = SEND(Done, Done, closeItem:item keepingModes:0);
    const auto opened = open_.extract(item);
    return opened && opened.mapped() != nil ? removeName(item, opened.mapped(), kEmulatedName)
                                            : closed;
}

Answer Daemon::deactivateItem(FSItem *item) {
    return SEND(Gets<FSDeactivateItemResult *>, Done, deactivateItem:item);
}

Answer Daemon::listPage(FSItem *directory, FSDirectoryCookie cookie, FSDirectoryVerifier verifier,
                        bool withAttributes, ListPacker *packer) {
    return SEND(Gets<FSEnumerateDirectoryResult *>, Gets<FSDirectoryVerifier>,
                enumerateDirectory:directory startingAtCookie:cookie verifier:verifier
               providingAttributes:withAttributes ? allAttributes() : nil usingPacker:packer);
}
// clang-format on

Answer Daemon::remove(FSItem *item, FSItem *directory, const std::string &name) {
    const auto opened = open_.find(item);
    if (opened == open_.end() || release() == Release::k15_4) {
        return removeName(item, directory, name);
    }
    opened->second = directory;
    return rename(item, directory, name, directory, kEmulatedName);
}

Answer Daemon::seek(FSItem *item, std::uint64_t offset, FSSeekRegion region) {
    return ask(Gets<FSSeekRegionResult *>(), [&](auto reply) {
        [handlers() seekWithinItem:item
                        fromOffset:static_cast<off_t>(offset)
                            region:region
                           context:context_.get()
                      replyHandler:reply];
    });
}

std::string Daemon::readText(FSItem *item, size_t length) {
    const Answer answer = read(item, length);
    EXPECT_EQ(answer.code(), 0);
    return [static_cast<ByteBuffer *>(answer.object.get()) text:answer.number];
}

Answer Daemon::reclaim(FSItem *item) {
    return ask(Done(), [&](auto reply) { [volume() reclaimItem:item replyHandler:reply]; });
}

std::uint64_t Daemon::statistics() {
    ++requests_;
    return volume().volumeStatistics.freeBytes;
}

std::vector<std::string> Daemon::list(FSItem *directory, size_t room, bool withAttributes) {
    std::vector<std::string> names;
    Answer answer;
    FSDirectoryCookie cookie = 0;
    for (bool more = true; more;) {
        ListPacker *packer = [ListPacker packerWithRoom:room];
        answer = listPage(directory, cookie, answer.number, withAttributes, packer);
        EXPECT_TRUE(answer.ok() && packer->_refusals <= 1);
        for (const auto &entry : packer->_entries) {
            EXPECT_TRUE(entry.hasAttributes == withAttributes && entry.agrees);
            names.push_back(entry.name);
            cookie = entry.nextCookie;
        }
        more = !packer->_entries.empty();
    }
    return names;
}

} // namespace tavelin::test
