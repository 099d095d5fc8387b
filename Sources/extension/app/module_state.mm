#import "extension/app/module_state.h"

#import <AppKit/AppKit.h>
#import <FSKit/FSKit.h>
#import <dispatch/dispatch.h>

#include "extension/text.hpp"
#include "platform/product.hpp"

namespace {

NSString *const kSwitchOn =
    @"Tavelin is installed but switched off. To switch it on, open System Settings › General › "
    @"Login Items & Extensions, choose “By Category”, click ⓘ beside “File System Extensions” and "
    @"turn Tavelin on.";
NSString *const kNotFound =
    @"macOS does not know Tavelin's file-system extension yet. Move the application to the "
    @"Applications folder, open it from there, and keep only one copy of it.";
NSString *const kOn = @"Tavelin is switched on: NTFS disks mount when they are connected.";

FSModuleIdentity *ownModule(NSArray<FSModuleIdentity *> *modules) {
    for (FSModuleIdentity *module in modules) {
        if ([module.bundleIdentifier
                isEqualToString:tavelin::toNSString(tavelin::product::kExtensionBundleID)]) {
            return module;
        }
    }
    return nil;
}

} // namespace

void TVLFetchModuleState(void (^completion)(NSString *sentence, BOOL needsSettings)) {
    [[FSClient sharedInstance] fetchInstalledExtensionsWithCompletionHandler:^(
                                   NSArray<FSModuleIdentity *> *modules, NSError *error) {
        NSString *sentence = kOn;
        BOOL needsSettings = NO;
        if (modules == nil) {
            sentence = [NSString stringWithFormat:@"macOS did not tell its extensions: %@",
                                                  error.localizedDescription];
        } else if (FSModuleIdentity *module = ownModule(modules); module == nil) {
            sentence = kNotFound;
        } else if (!module.enabled) {
            sentence = kSwitchOn;
            needsSettings = YES;
        }
        dispatch_async(dispatch_get_main_queue(), ^{
            completion(sentence, needsSettings);
        });
    }];
}

void TVLOpenExtensionSettings(void) {
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000
    if (@available(macOS 27.0, *)) {
        if ([[FSClient sharedInstance] openFileSystemExtensionsSettings]) {
            return;
        }
    }
#endif
    NSURL *pane =
        [NSURL URLWithString:@"x-apple.systempreferences:com.apple.LoginItems-Settings.extension"];
    [[NSWorkspace sharedWorkspace] openURL:pane];
}
