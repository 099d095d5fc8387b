/// Whether macOS knows the file-system module and the user has switched it on.
#pragma once

#import <Foundation/Foundation.h>

/// Asks the system and answers, on the main thread, with a sentence for people, and with whether
/// there is something to do in System Settings.
void TVLFetchModuleState(void (^completion)(NSString *sentence, BOOL needsSettings));

/// Shows the pane of System Settings where file-system extensions are switched on.
void TVLOpenExtensionSettings(void);
