// The host application: it carries the extension and shows what the extension does. It mounts
// nothing itself; macOS starts the extension when an NTFS disk is connected.
#import <AppKit/AppKit.h>

#import "extension/app/main_window.h"

#include "extension/services/mac_services.hpp"

namespace {

void addQuitMenu(NSApplication *application) {
    NSMenu *bar = [[NSMenu alloc] init];
    NSMenuItem *item = [[NSMenuItem alloc] init];
    NSMenu *menu = [[NSMenu alloc] init];
    [menu addItemWithTitle:@"Quit Tavelin" action:@selector(terminate:) keyEquivalent:@"q"];
    item.submenu = menu;
    [bar addItem:item];
    application.mainMenu = bar;
}

} // namespace

int main() {
    tavelin::installServices(tavelin::macServices());
    @autoreleasepool {
        NSApplication *application = [NSApplication sharedApplication];
        // The application holds its delegate weakly; this variable keeps it to the end.
        TVLMainWindow *window = [[TVLMainWindow alloc] init];
        application.delegate = window;
        addQuitMenu(application);
        [application setActivationPolicy:NSApplicationActivationPolicyRegular];
        [application run];
    }
    return 0;
}
