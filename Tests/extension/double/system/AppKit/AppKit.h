// What of AppKit the platform-free part of the application asks for.
#pragma once

#import <Foundation/Foundation.h>

@interface NSWorkspace : NSObject
+ (NSWorkspace *)sharedWorkspace;
- (BOOL)openURL:(NSURL *)url;
@end
