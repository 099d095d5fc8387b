#import "extension/app/main_window.h"

#import "extension/app/module_state.h"

#include "extension/app/log_follower.hpp"
#include "extension/app/mounted_volumes.hpp"
#include "extension/text.hpp"

namespace {

constexpr NSTimeInterval kRefreshSeconds = 1.0;
// The module's state is asked of another process, and changes when the user changes it.
constexpr NSUInteger kRefreshesPerModuleState = 5;
constexpr NSUInteger kLogCharactersMax = 1 << 20;

NSTextField *wrappingLabel(NSString *text) {
    NSTextField *label = [NSTextField wrappingLabelWithString:text];
    label.selectable = YES;
    return label;
}

} // namespace

@implementation TVLMainWindow {
    NSWindow *_window;
    NSTextField *_moduleState;
    NSButton *_settings;
    NSTextField *_volumes;
    NSTextView *_log;
    NSTimer *_timer;
    NSUInteger _refreshes;
    std::unique_ptr<tavelin::LogFollower> _follower;
}

- (void)applicationDidFinishLaunching:(NSNotification *)notification {
    (void)notification;
    _follower = std::make_unique<tavelin::LogFollower>(tavelin::events());
    [self makeWindow];
    [self refresh];
    __weak TVLMainWindow *weakSelf = self;
    _timer = [NSTimer scheduledTimerWithTimeInterval:kRefreshSeconds
                                             repeats:YES
                                               block:^(NSTimer *) {
                                                   [weakSelf refresh];
                                               }];
}

- (BOOL)applicationShouldTerminateAfterLastWindowClosed:(NSApplication *)application {
    (void)application;
    return YES;
}

- (void)makeWindow {
    _moduleState = wrappingLabel(@"Asking macOS about the extension…");
    _settings = [NSButton buttonWithTitle:@"Open System Settings…"
                                   target:self
                                   action:@selector(openSettings)];
    _settings.hidden = YES;
    _volumes = wrappingLabel(@"");
    NSScrollView *scroller = [NSTextView scrollableTextView];
    _log = static_cast<NSTextView *>(scroller.documentView);
    _log.editable = NO;
    _log.font = [NSFont monospacedSystemFontOfSize:11 weight:NSFontWeightRegular];

    NSStackView *stack =
        [NSStackView stackViewWithViews:@[ _moduleState, _settings, _volumes, scroller ]];
    stack.orientation = NSUserInterfaceLayoutOrientationVertical;
    stack.alignment = NSLayoutAttributeLeading;
    stack.edgeInsets = NSEdgeInsetsMake(16, 16, 16, 16);
    _window = [[NSWindow alloc]
        initWithContentRect:NSMakeRect(0, 0, 720, 480)
                  styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable |
                            NSWindowStyleMaskMiniaturizable | NSWindowStyleMaskResizable
                    backing:NSBackingStoreBuffered
                      defer:NO];
    _window.title = @"Tavelin";
    _window.contentView = stack;
    _window.releasedWhenClosed = NO;
    [_window center];
    [_window makeKeyAndOrderFront:nil];
}

- (void)openSettings {
    TVLOpenExtensionSettings();
}

- (void)refresh {
    if (_refreshes++ % kRefreshesPerModuleState == 0) {
        [self refreshModuleState];
    }
    [self refreshVolumes];
    [self refreshLog];
}

- (void)refreshModuleState {
    __weak TVLMainWindow *weakSelf = self;
    TVLFetchModuleState(^(NSString *sentence, BOOL needsSettings) {
        TVLMainWindow *window = weakSelf;
        if (window != nil) {
            window->_moduleState.stringValue = sentence;
            window->_settings.hidden = !needsSettings;
        }
    });
}

- (void)refreshVolumes {
    std::string text;
    for (const std::string &line : tavelin::describeMountedVolumes()) {
        text += (text.empty() ? "" : "\n") + line;
    }
    _volumes.stringValue =
        tavelin::toNSString(text.empty() ? "No NTFS volume is mounted through Tavelin." : text);
}

- (void)refreshLog {
    const std::string added = _follower->added();
    if (added.empty()) {
        return;
    }
    NSMutableString *shown = _log.textStorage.mutableString;
    [shown appendString:tavelin::toNSString(added)];
    if (shown.length > kLogCharactersMax) {
        [shown deleteCharactersInRange:NSMakeRange(0, shown.length - kLogCharactersMax)];
    }
    [_log scrollRangeToVisible:NSMakeRange(shown.length, 0)];
}

@end
