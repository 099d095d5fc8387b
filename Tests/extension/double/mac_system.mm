#import "extension/double/mac_system.h"
#import "extension/double/system/foundation_additions.h"

#import <AppKit/AppKit.h>
#import <os/log.h>

#include <Block.h>
#include <cstdarg>
#include <cstdio>
#include <utility>

using tavelin::made;
using tavelin::Strong;
using tavelin::test::macSystem;

@interface ManualQueue : NSObject <OS_dispatch_queue>
@end
@implementation ManualQueue
@end

@implementation ManualSource
- (void)dealloc {
    if (_handler != nil) {
        Block_release(_handler);
    }
    [super dealloc];
}
@end

@interface NamedLog : NSObject <OS_os_log> {
  @public
    std::string _name;
}
@end
@implementation NamedLog
@end

@interface OwnIdentity : FSModuleIdentity {
  @public
    std::string _identifier;
    bool _isEnabled;
}
@end

@implementation FSModuleIdentity
@end

@implementation OwnIdentity
- (NSString *)bundleIdentifier {
    return [NSString stringWithUTF8String:_identifier.c_str()];
}
- (BOOL)isEnabled {
    return _isEnabled;
}
@end

@implementation FSClient
+ (FSClient *)sharedInstance {
    static FSClient *client = [[FSClient alloc] init];
    return client;
}
- (void)fetchInstalledExtensionsWithCompletionHandler:(void (^)(NSArray<FSModuleIdentity *> *,
                                                                NSError *))completionHandler {
    completionHandler(macSystem().modules.get(), [NSError errorWithDomain:NSPOSIXErrorDomain
                                                                     code:1
                                                                 userInfo:nil]);
}
- (BOOL)openFileSystemExtensionsSettings {
    return macSystem().hasSettings;
}
@end

@implementation NSWorkspace
+ (NSWorkspace *)sharedWorkspace {
    static NSWorkspace *workspace = [[NSWorkspace alloc] init];
    return workspace;
}
- (BOOL)openURL:(NSURL *)url {
    macSystem().opened.emplace_back(url.absoluteString.UTF8String);
    return YES;
}
@end

@implementation NSFileManager (MacOS)
- (NSURL *)containerURLForSecurityApplicationGroupIdentifier:(NSString *)groupIdentifier {
    return groupIdentifier.length == 0
               ? nil
               : [NSURL fileURLWithPath:[@"/containers"
                                            stringByAppendingPathComponent:groupIdentifier]];
}
@end

const struct dispatch_source_type_s {
} _dispatch_source_type_timer;

dispatch_queue_t dispatch_get_global_queue(intptr_t, uintptr_t) {
    static ManualQueue *queue = [[ManualQueue alloc] init];
    return queue;
}
dispatch_queue_t dispatch_get_main_queue(void) {
    return dispatch_get_global_queue(0, 0);
}
void dispatch_async(dispatch_queue_t, dispatch_block_t block) {
    macSystem().queued.push_back(Block_copy(block));
}
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
    return when + static_cast<dispatch_time_t>(delta);
}
dispatch_source_t dispatch_source_create(dispatch_source_type_t, uintptr_t, uintptr_t,
                                         dispatch_queue_t) {
    ManualSource *source = made([[ManualSource alloc] init]);
    macSystem().timers.emplace_back(source);
    return source;
}
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t, uint64_t interval,
                               uint64_t leeway) {
    static_cast<ManualSource *>(source)->_interval = interval;
    static_cast<ManualSource *>(source)->_leeway = leeway;
}
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) {
    static_cast<ManualSource *>(source)->_handler = Block_copy(handler);
}
void dispatch_source_cancel(dispatch_source_t source) {
    static_cast<ManualSource *>(source)->_cancelled = true;
}
void dispatch_activate(dispatch_source_t source) {
    static_cast<ManualSource *>(source)->_active = true;
}

os_log_t os_log_create(const char *subsystem, const char *category) {
    NamedLog *log = made([[NamedLog alloc] init]);
    log->_name = std::string(subsystem) + ' ' + category;
    return log;
}
bool os_log_type_enabled(os_log_t, os_log_type_t type) {
    return type == OS_LOG_TYPE_ERROR || macSystem().infoIsEnabled;
}
void _tvl_os_log(os_log_t log, os_log_type_t type, const char *format, ...) {
    if (!os_log_type_enabled(log, type)) {
        return;
    }
    // The one format in use; any other would show up in the test's lines.
    va_list arguments;
    va_start(arguments, format);
    const std::string text =
        std::string(format) == "%{public}s" ? va_arg(arguments, const char *) : "unexpected format";
    va_end(arguments);
    macSystem().log.push_back((type == OS_LOG_TYPE_ERROR ? "error " : "info ") +
                              static_cast<NamedLog *>(log)->_name + ' ' + text);
}

int getmntinfo(struct statfs **volumes, int) {
    *volumes = macSystem().mounts.data();
    return static_cast<int>(macSystem().mounts.size());
}

namespace tavelin::test {

MacSystem &macSystem() {
    static MacSystem system;
    return system;
}

size_t MacSystem::runQueued() {
    const std::vector<dispatch_block_t> blocks = std::exchange(queued, {});
    for (dispatch_block_t block : blocks) {
        block();
        Block_release(block);
    }
    return blocks.size();
}

FSModuleIdentity *moduleIdentity(const std::string &identifier, bool enabled) {
    OwnIdentity *identity = made([[OwnIdentity alloc] init]);
    identity->_identifier = identifier;
    identity->_isEnabled = enabled;
    return identity;
}

} // namespace tavelin::test
