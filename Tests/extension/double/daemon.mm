// The life of a module and its volume.
#import "extension/double/asking.h"

#include "platform/error_numbers.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

FSTaskOptions *noOptions() {
    return [FSTaskOptions optionsWithWords:@[]];
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

Daemon::Daemon(Release release)
    : release_(release),
      hadTryReclaim_([FSItem instancesRespondToSelector:@selector(tryReclaimWithBlock:)]),
      context_([FSContext contextOfUser:501]),
      module_(made([[::TavelinFileSystem alloc] init])) {
    [FSItem setHasTryReclaim:hasHandlers()];
}

Answer Daemon::probe(FSResource *resource) {
    return ask(Gets<FSProbeResult *>(),
               [&](auto reply) { [module() probeResource:resource replyHandler:reply]; });
}

Answer Daemon::load(FSResource *resource) {
    Answer answer = ask(Gets<FSVolume *>(), [&](auto reply) {
        [module() loadResource:resource options:noOptions() replyHandler:reply];
    });
    resource_ = Strong(resource);
    volume_ = Strong(static_cast<::TavelinServedVolume *>(answer.object.get()));
    if (release() != Release::k15_4) {
        EXPECT_TRUE(volume() == nil || volume().enableOpenUnlinkEmulation);
    }
    return answer;
}

Answer Daemon::activate(NSArray<NSString *> *words) {
    FSTaskOptions *options = [FSTaskOptions optionsWithWords:words];
    Answer answer = hasHandlers()
                        ? ask(Gets<FSActivateResult *>(),
                              [&](auto reply) {
                                  [handlers() activateVolumeWithOptions:options replyHandler:reply];
                              })
                        : ask(Gets<FSItem *>(), [&](auto reply) {
                              [first() activateWithOptions:options replyHandler:reply];
                          });
    root_ = Strong(answer.item());
    return answer;
}

void Daemon::bringUp(FSResource *resource, NSArray<NSString *> *words) {
    ASSERT_EQ(load(resource).code(), 0);
    ASSERT_EQ(state(), FSContainerStateReady);
    ASSERT_EQ(activate(words).code(), 0);
    ASSERT_EQ(state(), FSContainerStateActive);
    const Answer mounted = ask(
        Done(), [&](auto reply) { [volume() mountWithOptions:noOptions() replyHandler:reply]; });
    ASSERT_EQ(mounted.code(), 0);
}

Answer Daemon::unmount() {
    return ask(Reply<>(), [&](auto reply) { [volume() unmountWithReplyHandler:reply]; });
}

Answer Daemon::deactivate() {
    return ask(Done(), [&](auto reply) {
        if (hasHandlers()) {
            [handlers() deactivateVolumeWithOptions:0 replyHandler:reply];
        } else {
            [first() deactivateWithOptions:0 replyHandler:reply];
        }
    });
}

std::vector<Answer> Daemon::abandon() {
    return {synchronize(), unmount(), reclaim(root()), deactivate(), unload()};
}

void Daemon::takeDown() {
    for (const Answer &answer : abandon()) {
        EXPECT_EQ(answer.code(), 0);
    }
    EXPECT_EQ(volume().handedItemCount, 0u);
    EXPECT_EQ(state(), FSContainerStateNotReady);
    EXPECT_EQ(module().containerStatus.status.code, kEAGAIN) << "a load may follow";
}

Answer Daemon::unload() {
    return ask(Done(), [&](auto reply) {
        [module() unloadResource:resource_.get() options:noOptions() replyHandler:reply];
    });
}

Answer Daemon::check(NSArray<NSString *> *words, RecordingTask *task) {
    NSError *error = nil;
    NSProgress *progress = [module() startCheckWithTask:task
                                                options:[FSTaskOptions optionsWithWords:words]
                                                  error:&error];
    return ask(Gets<NSProgress *>(), [&](auto reply) { reply(progress, error); });
}

Answer Daemon::format() {
    NSError *error = nil;
    NSProgress *progress = [module() startFormatWithTask:made([RecordingTask new])
                                                 options:noOptions()
                                                   error:&error];
    return ask(Gets<NSProgress *>(), [&](auto reply) { reply(progress, error); });
}

Answer Daemon::synchronize() {
    return ask(Done(), [&](auto reply) {
        [volume() synchronizeWithFlags:FSSyncFlagsWait replyHandler:reply];
    });
}

} // namespace tavelin::test
