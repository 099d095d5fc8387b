// The parts of macOS beside FSKit that the binding and the application use, as a test plays them:
// dispatch queues and timers that run on demand, a log that keeps its lines, what the system says
// of extensions and mounts.
#pragma once

#import <FSKit/FSKit.h>
#import <Foundation/Foundation.h>
#import <dispatch/dispatch.h>

#include "extension/memory.hpp"

#include <functional>
#include <string>
#include <sys/mount.h>
#include <vector>

@interface ManualSource : NSObject <OS_dispatch_source> {
  @public
    dispatch_block_t _handler;
    uint64_t _interval; // nanoseconds
    uint64_t _leeway;   // nanoseconds
    bool _active;
    bool _cancelled;
}
@end

namespace tavelin::test {

struct MacSystem {
    // "level subsystem category message", of levels that are enabled.
    std::vector<std::string> log;
    bool infoIsEnabled = false;
    std::vector<Strong<ManualSource *>> timers;
    std::vector<dispatch_block_t> queued;

    // What FSClient answers: nil, and the error, or the modules.
    Strong<NSArray<FSModuleIdentity *> *> modules;
    bool hasSettings = true; // and opens its own pane of them
    std::vector<std::string> opened;
    std::vector<struct statfs> mounts;

    // Runs what was dispatched; answers how much that was.
    size_t runQueued();
};

MacSystem &macSystem();

FSModuleIdentity *moduleIdentity(const std::string &identifier, bool enabled);

} // namespace tavelin::test
