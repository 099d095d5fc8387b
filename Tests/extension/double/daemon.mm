#import "extension/double/daemon.h"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

// What the reply blocks do with what they get: one call for each shape that FSKit has.
struct Into {
    Answer *answer;

    void operator()() const { ++answer->replies; }
    void operator()(NSError *error) const {
        (*this)();
        answer->error = Strong(error);
    }
    void operator()(id object, NSError *error) const {
        answer->object = Strong(object);
        (*this)(error);
    }
    void operator()(FSFileName *name, NSError *error) const {
        answer->name = Strong(name);
        (*this)(error);
    }
    void operator()(FSItem *item, FSFileName *name, NSError *error) const {
        answer->object = Strong<id>(item);
        (*this)(name, error);
    }
    void operator()(std::uint64_t number, NSError *error) const {
        answer->number = number;
        (*this)(error);
    }
};

// Sends a request whose reply block takes these arguments, and answers what it got.
template<typename... Arguments, typename Send>
Answer ask(const Send &send) {
    Answer answer;
    const Into into{&answer};
    send(^(Arguments... arguments) {
        into(arguments...);
    });
    return answer;
}

FSTaskOptions *noOptions() {
    return [FSTaskOptions optionsWithWords:@[]];
}

FSItemSetAttributesRequest *noAttributes() {
    return made([[FSItemSetAttributesRequest alloc] init]);
}

} // namespace

FSFileName *fileName(const std::string &bytes) {
    return [FSFileName nameWithText:bytes];
}

int Answer::code() const {
    if (replies != 1) {
        return -1;
    }
    if (error.get() == nil) {
        return 0;
    }
    return [error.get().domain isEqualToString:NSPOSIXErrorDomain]
               ? static_cast<int>(error.get().code)
               : -1;
}

std::string Answer::text() const {
    NSData *data = name.get().data;
    return {static_cast<const char *>(data.bytes), data.length};
}

Daemon::Daemon() : module_(made([[::TavelinFileSystem alloc] init])) {}

Answer Daemon::probe(FSResource *resource) {
    return ask<FSProbeResult *, NSError *>(
        [&](auto reply) { [module() probeResource:resource replyHandler:reply]; });
}

Answer Daemon::load(FSResource *resource) {
    Answer answer = ask<FSVolume *, NSError *>([&](auto reply) {
        [module() loadResource:resource options:noOptions() replyHandler:reply];
    });
    resource_ = Strong(resource);
    volume_ = Strong(static_cast<::TavelinVolume *>(answer.object.get()));
    return answer;
}

Answer Daemon::activate() {
    Answer answer = ask<FSItem *, NSError *>(
        [&](auto reply) { [volume() activateWithOptions:noOptions() replyHandler:reply]; });
    root_ = Strong(answer.item());
    return answer;
}

void Daemon::bringUp(FSResource *resource) {
    ASSERT_EQ(load(resource).code(), 0);
    ASSERT_EQ(state(), FSContainerStateReady);
    ASSERT_EQ(activate().code(), 0);
    ASSERT_EQ(state(), FSContainerStateActive);
    const Answer mounted = ask<NSError *>(
        [&](auto reply) { [volume() mountWithOptions:noOptions() replyHandler:reply]; });
    ASSERT_EQ(mounted.code(), 0);
}

std::vector<Answer> Daemon::abandon() {
    const auto unmount = [this] {
        return ask<>([&](auto reply) { [volume() unmountWithReplyHandler:reply]; });
    };
    const auto deactivate = [this] {
        return ask<NSError *>(
            [&](auto reply) { [volume() deactivateWithOptions:0 replyHandler:reply]; });
    };
    return {synchronize(), unmount(), reclaim(root()), deactivate(), unload()};
}

void Daemon::takeDown() {
    for (const Answer &answer : abandon()) {
        EXPECT_EQ(answer.code(), 0);
    }
    EXPECT_EQ(volume().handedItemCount, 0u);
    EXPECT_EQ(state(), FSContainerStateNotReady);
}

Answer Daemon::unload() {
    return ask<NSError *>([&](auto reply) {
        [module() unloadResource:resource_.get() options:noOptions() replyHandler:reply];
    });
}

Answer Daemon::check(NSArray<NSString *> *words, RecordingTask *task) {
    NSError *error = nil;
    NSProgress *progress = [module() startCheckWithTask:task
                                                options:[FSTaskOptions optionsWithWords:words]
                                                  error:&error];
    return ask<NSProgress *, NSError *>([&](auto reply) { reply(progress, error); });
}

Answer Daemon::format() {
    NSError *error = nil;
    NSProgress *progress = [module() startFormatWithTask:made([RecordingTask new])
                                                 options:noOptions()
                                                   error:&error];
    return ask<NSProgress *, NSError *>([&](auto reply) { reply(progress, error); });
}

Answer Daemon::lookup(FSItem *directory, const std::string &name) {
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [volume() lookupItemNamed:fileName(name) inDirectory:directory replyHandler:reply];
    });
}

Answer Daemon::create(FSItem *directory, const std::string &name, FSItemType type) {
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [volume() createItemNamed:fileName(name)
                             type:type
                      inDirectory:directory
                       attributes:noAttributes()
                     replyHandler:reply];
    });
}

Answer Daemon::link(FSItem *directory, const std::string &name, const std::string &target) {
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [volume() createSymbolicLinkNamed:fileName(name)
                              inDirectory:directory
                               attributes:noAttributes()
                             linkContents:fileName(target)
                             replyHandler:reply];
    });
}

Answer Daemon::hardLink(FSItem *item, FSItem *directory, const std::string &name) {
    return ask<FSFileName *, NSError *>([&](auto reply) {
        [volume() createLinkToItem:item
                             named:fileName(name)
                       inDirectory:directory
                      replyHandler:reply];
    });
}

Answer Daemon::remove(FSItem *item, FSItem *directory, const std::string &name) {
    return ask<NSError *>([&](auto reply) {
        [volume() removeItem:item named:fileName(name) fromDirectory:directory replyHandler:reply];
    });
}

Answer Daemon::rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                      const std::string &newName) {
    return ask<FSFileName *, NSError *>([&](auto reply) {
        [volume() renameItem:item
                 inDirectory:from
                       named:fileName(name)
                   toNewName:fileName(newName)
                 inDirectory:to
                    overItem:nil
                replyHandler:reply];
    });
}

Answer Daemon::readLink(FSItem *item) {
    return ask<FSFileName *, NSError *>(
        [&](auto reply) { [volume() readSymbolicLink:item replyHandler:reply]; });
}

Answer Daemon::getAttributes(FSItem *item) {
    return ask<FSItemAttributes *, NSError *>([&](auto reply) {
        [volume() getAttributes:made([[FSItemGetAttributesRequest alloc] init])
                         ofItem:item
                   replyHandler:reply];
    });
}

// number: the attributes that the volume says it consumed.
Answer Daemon::setSize(FSItem *item, std::uint64_t size) {
    FSItemSetAttributesRequest *request = noAttributes();
    request.size = size;
    request.supportsLimitedXAttrs = YES; // never consumed
    Answer answer = ask<FSItemAttributes *, NSError *>(
        [&](auto reply) { [volume() setAttributes:request onItem:item replyHandler:reply]; });
    answer.number = static_cast<std::uint64_t>(request.consumedAttributes);
    return answer;
}

Answer Daemon::write(FSItem *item, const std::string &data) {
    return ask<size_t, NSError *>([&](auto reply) {
        [volume() writeContents:[NSData dataWithBytes:data.data() length:data.size()]
                         toFile:item
                       atOffset:0
                   replyHandler:reply];
    });
}

Answer Daemon::read(FSItem *item, size_t length) {
    ByteBuffer *buffer = [ByteBuffer bufferOfLength:length];
    Answer answer = ask<size_t, NSError *>([&](auto reply) {
        [volume() readFromFile:item offset:0 length:length intoBuffer:buffer replyHandler:reply];
    });
    answer.object = Strong<id>(buffer);
    return answer;
}

std::string Daemon::readText(FSItem *item, size_t length) {
    const Answer answer = read(item, length);
    EXPECT_EQ(answer.code(), 0);
    return [static_cast<ByteBuffer *>(answer.object.get()) text:answer.number];
}

Answer Daemon::getXattr(FSItem *item, const std::string &name) {
    return ask<NSData *, NSError *>([&](auto reply) {
        [volume() getXattrNamed:fileName(name) ofItem:item replyHandler:reply];
    });
}

Answer Daemon::setXattr(FSItem *item, const std::string &name, NSData *value,
                        FSSetXattrPolicy policy) {
    return ask<NSError *>([&](auto reply) {
        [volume() setXattrNamed:fileName(name)
                         toData:value
                         onItem:item
                         policy:policy
                   replyHandler:reply];
    });
}

Answer Daemon::listXattrs(FSItem *item) {
    return ask<NSArray<FSFileName *> *, NSError *>(
        [&](auto reply) { [volume() listXattrsOfItem:item replyHandler:reply]; });
}

Answer Daemon::setVolumeName(const std::string &name) {
    return ask<FSFileName *, NSError *>(
        [&](auto reply) { [volume() setVolumeName:fileName(name) replyHandler:reply]; });
}

Answer Daemon::open(FSItem *item) {
    return ask<NSError *>([&](auto reply) {
        [volume() openItem:item
                 withModes:FSVolumeOpenModesRead | FSVolumeOpenModesWrite
              replyHandler:reply];
    });
}

Answer Daemon::close(FSItem *item) {
    return ask<NSError *>(
        [&](auto reply) { [volume() closeItem:item keepingModes:0 replyHandler:reply]; });
}

Answer Daemon::reclaim(FSItem *item) {
    return ask<NSError *>([&](auto reply) { [volume() reclaimItem:item replyHandler:reply]; });
}

Answer Daemon::synchronize() {
    return ask<NSError *>(
        [&](auto reply) { [volume() synchronizeWithFlags:FSSyncFlagsWait replyHandler:reply]; });
}

std::vector<std::string> Daemon::list(FSItem *directory, size_t room, bool withAttributes) {
    std::vector<std::string> names;
    FSItemGetAttributesRequest *wanted =
        withAttributes ? made([[FSItemGetAttributesRequest alloc] init]) : nil;
    Answer answer;
    FSDirectoryCookie cookie = 0;
    for (bool more = true; more;) {
        ListPacker *packer = [ListPacker packerWithRoom:room];
        const FSDirectoryVerifier verifier = answer.number;
        answer = ask<FSDirectoryVerifier, NSError *>([&](auto reply) {
            [volume() enumerateDirectory:directory
                        startingAtCookie:cookie
                                verifier:verifier
                     providingAttributes:wanted
                             usingPacker:packer
                            replyHandler:reply];
        });
        EXPECT_EQ(answer.code(), 0);
        for (const auto &entry : packer->_entries) {
            EXPECT_EQ(entry.hasAttributes, withAttributes);
            names.push_back(entry.name);
            cookie = entry.nextCookie;
        }
        more = !packer->_entries.empty();
    }
    return names;
}

} // namespace tavelin::test
