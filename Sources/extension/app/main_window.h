/// The host application's one window: the module's state, the mounted volumes and the event log.
#pragma once

#import <AppKit/AppKit.h>

@interface TVLMainWindow : NSObject <NSApplicationDelegate>
@end
