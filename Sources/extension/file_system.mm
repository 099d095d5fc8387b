#import "extension/file_system.h"

#import "extension/handler_volume.h"
#import "extension/volume.h"

#include "extension/block_device.hpp"
#include "extension/reply.hpp"
#include "extension/text.hpp"

#include <utility>

using tavelin::MutexLock;
using tavelin::serve;
using tavelin::Strong;
using tavelin::toCore;
using tavelin::toFSKit;

namespace {

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

    void didComplete(const std::optional<fskit::Error> &error) override {
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

/// The class of volume that this release's FSKit knows the requests of. What came with the second
/// generation is asked of FSKit's own class, and not of the release alone, so that both answers can
/// be tested anywhere.
Class volumeClass() {
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000
    if (@available(macOS 27.0, *)) {
        if ([FSItem instancesRespondToSelector:@selector(tryReclaimWithBlock:)]) {
            return [TavelinHandlerVolume class];
        }
    }
#endif
    return [TavelinVolume class];
}

} // namespace

@implementation TavelinFileSystem

- (instancetype)init {
    if ((self = [super init])) {
        // Programs of macOS hand names over in the other normal form than Windows, and users of the
        // Finder cannot pass options.
        _fileSystem = std::make_shared<tavelin::TavelinFileSystem>(
            tavelin::TavelinFileSystem::NameRules{.windowsNames = true, .normalizeNames = true});
    }
    return self;
}

- (void)probeResource:(FSResource *)resource
         replyHandler:(void (^)(FSProbeResult *result, NSError *error))reply {
    serve(reply, [&] {
        return std::tuple<FSProbeResult *, NSError *>(
            toFSKit(_fileSystem->probeResource(toCore(resource))), nil);
    });
}

// FSKit reads the container's status when it gets the reply, so it is set before.
- (void)loadResource:(FSResource *)resource
             options:(FSTaskOptions *)options
        replyHandler:(void (^)(FSVolume *volume, NSError *error))reply {
    serve(reply, [&]() -> std::tuple<FSVolume *, NSError *> {
        const auto loaded = _fileSystem->loadResource(toCore(resource), toCore(options));
        if (!loaded) {
            NSError *failed = toFSKit(loaded.error());
            [self becomeIdle:[FSContainerStatus notReadyWithStatus:failed]];
            return {nil, failed};
        }
        const auto volume = std::dynamic_pointer_cast<tavelin::TavelinVolume>(*loaded);
        // An active volume is answered again, and is the same object for FSKit.
        if (![_volume.get() serves:*volume]) {
            TavelinServedVolume *fresh = tavelin::made([[volumeClass() alloc] initWithVolume:volume
                                                                                  fileSystem:self]);
            if (fresh == nil) {
                // No unload comes for what was not answered. Nothing was changed through it that
                // a failure could lose.
                static_cast<void>(_fileSystem->unloadResource(toCore(resource), toCore(options)));
                NSError *failed = fs_errorForPOSIXError(tavelin::kENOMEM);
                [self becomeIdle:[FSContainerStatus notReadyWithStatus:failed]];
                return {nil, failed};
            }
            [self keep:fresh status:[FSContainerStatus ready]];
        }
        return {_volume.get(), nil};
    });
}

- (void)unloadResource:(FSResource *)resource
               options:(FSTaskOptions *)options
          replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        auto unloaded = _fileSystem->unloadResource(toCore(resource), toCore(options));
        [self becomeIdle:tavelin::nothingLoaded()];
        return unloaded;
    });
}

// Unless a volume stays loaded, which a request about another one leaves as it is.
- (void)becomeIdle:(FSContainerStatus *)status {
    if (_fileSystem->volume == nullptr) {
        [self keep:nil status:status];
    }
}

- (void)keep:(TavelinServedVolume *)volume status:(FSContainerStatus *)status {
    Strong<TavelinServedVolume *> former(volume); // freed after the lock is released
    const MutexLock held(_statusLock);
    std::swap(_volume, former);
    self.containerStatus = status;
}

- (void)volume:(TavelinServedVolume *)volume became:(FSContainerStatus *)status {
    const MutexLock held(_statusLock);
    if (_volume.get() == volume) {
        self.containerStatus = status;
    }
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
        const auto started = (_fileSystem.get()->*operation)(
            std::make_shared<TaskAdapter>(task, progress), toCore(options));
        if (started) {
            return progress;
        }
        failure = toFSKit(started.error());
    } catch (...) {
        failure = fs_errorForPOSIXError(tavelin::kEIO);
    }
    if (error != nullptr) {
        *error = failure;
    }
    return nil;
}

@end
