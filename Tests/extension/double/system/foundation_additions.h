// What Foundation has on a Mac and not in GNUstep.
#pragma once

#import <Foundation/Foundation.h>

@interface NSFileManager (MacOS)
- (NSURL *)containerURLForSecurityApplicationGroupIdentifier:(NSString *)groupIdentifier;
@end
