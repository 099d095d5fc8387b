#import "extension/file_system.h"

#import "extension/volume.h"

#include "extension/block_device.hpp"
#include "extension/reply.hpp"
#include "extension/text.hpp"

using tavelin::answerWith;
using tavelin::serve;
using tavelin::Strong;
using tavelin::toCore;
using tavelin::toFSKit;

namespace {

using fskit::MaybeError;

/// FSKit's task as the front end completes it. The front end does its checks in one step, so the
/// progress FSKit watches goes from nothing to all of it.
class TaskAdapter final : public fskit::FSTask {
  public:
    TaskAdapter(::FSTask *task, ::NSProgress *progress) : task_(task), progress_(progress) {}

    void logMessage(const std::string &text) override {
        @autoreleasepool {
            [task_.get() logMessage:tavelin::toNSString(text)];
        }
    }

    void didComplete(const MaybeError &error) override {
        @autoreleasepool {
            if (!error) {
                progress_.get().completedUnitCount = kTotalUnitCount;
            }
            [task_.get() didCompleteWithError:toFSKit(error)];
        }
    }

    static constexpr std::int64_t kTotalUnitCount = 1;

  private:
    const Strong<::FSTask *> task_;
    const Strong<::NSProgress *> progress_;
};

/// Check and format are started alike.
using Start = decltype(&tavelin::TavelinFileSystem::startCheck);

FSContainerStatus *notReady(NSError *error) {
    return [FSContainerStatus notReadyWithStatus:error];
}

} // namespace

@implementation TavelinFileSystem

- (instancetype)init {
    if ((self = [super init])) {
        _fileSystem = std::make_shared<tavelin::TavelinFileSystem>();
    }
    return self;
}

- (void)probeResource:(FSResource *)resource
         replyHandler:(void (^)(FSProbeResult *result, NSError *error))reply {
    serve(reply,
          [&](auto &answer) { _fileSystem->probeResource(toCore(resource), answerWith(answer)); });
}

// FSKit reads the container's status when it gets the reply, so it is set before.
- (void)loadResource:(FSResource *)resource
             options:(FSTaskOptions *)options
        replyHandler:(void (^)(FSVolume *volume, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _fileSystem->loadResource(
            toCore(resource), toCore(options),
            [&](const std::shared_ptr<fskit::FSVolume> &loaded, const MaybeError &error) {
                const auto volume = std::dynamic_pointer_cast<tavelin::TavelinVolume>(loaded);
                if (error || volume == nullptr) {
                    NSError *failure =
                        toFSKit(error.value_or(fskit::fs_errorForPOSIXError(tavelin::kEIO)));
                    self.containerStatus = notReady(failure);
                    answer(nil, failure);
                    return;
                }
                TavelinVolume *given = tavelin::made([[TavelinVolume alloc] initWithVolume:volume
                                                                                fileSystem:self]);
                self.containerStatus = [FSContainerStatus ready];
                answer(given, nil);
            });
    });
}

// There is no status for "nothing loaded": EAGAIN says that a load may follow.
- (void)unloadResource:(FSResource *)resource
               options:(FSTaskOptions *)options
          replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _fileSystem->unloadResource(
            toCore(resource), toCore(options), [&](const MaybeError &error) {
                self.containerStatus = notReady(fs_errorForPOSIXError(tavelin::kEAGAIN));
                answer(toFSKit(error));
            });
    });
}

- (NSProgress *)startCheckWithTask:(FSTask *)task
                           options:(FSTaskOptions *)options
                             error:(NSError **)error {
    return [self start:&tavelin::TavelinFileSystem::startCheck
                  task:task
               options:options
                 error:error];
}

- (NSProgress *)startFormatWithTask:(FSTask *)task
                            options:(FSTaskOptions *)options
                              error:(NSError **)error {
    return [self start:&tavelin::TavelinFileSystem::startFormat
                  task:task
               options:options
                 error:error];
}

- (NSProgress *)start:(Start)operation
                 task:(FSTask *)task
              options:(FSTaskOptions *)options
                error:(NSError **)error {
    NSError *failure = nil;
    try {
        NSProgress *progress = [NSProgress progressWithTotalUnitCount:TaskAdapter::kTotalUnitCount];
        static_cast<void>((_fileSystem.get()->*operation)(
            std::make_shared<TaskAdapter>(task, progress), toCore(options)));
        return progress;
    } catch (const fskit::Error &refused) {
        failure = toFSKit(refused);
    } catch (...) {
        failure = fs_errorForPOSIXError(tavelin::kEIO);
    }
    if (error != nullptr) {
        *error = failure;
    }
    return nil;
}

@end
