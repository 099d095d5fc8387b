// The part of AppKit that the host application uses, declared by hand; see Foundation.h.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef double CGFloat;
typedef struct {
    CGFloat x, y, width, height;
} NSRect;
typedef struct {
    CGFloat top, left, bottom, right;
} NSEdgeInsets;

static inline NSRect NSMakeRect(CGFloat x, CGFloat y, CGFloat width, CGFloat height) {
    return NSRect{x, y, width, height};
}
static inline NSEdgeInsets NSEdgeInsetsMake(CGFloat top, CGFloat left, CGFloat bottom,
                                            CGFloat right) {
    return NSEdgeInsets{top, left, bottom, right};
}

typedef CGFloat NSFontWeight;
extern "C" const NSFontWeight NSFontWeightRegular;

@interface NSFont : NSObject
+ (NSFont *)monospacedSystemFontOfSize:(CGFloat)size weight:(NSFontWeight)weight;
@end

@interface NSView : NSObject
@property (getter=isHidden) BOOL hidden;
@end

@interface NSTextField : NSView
+ (instancetype)wrappingLabelWithString:(NSString *)text;
@property (copy) NSString *stringValue;
@property (getter=isSelectable) BOOL selectable;
@end

@interface NSButton : NSView
+ (instancetype)buttonWithTitle:(NSString *)title
                         target:(nullable id)target
                         action:(nullable SEL)action;
@end

@interface NSScrollView : NSView
@property (nullable, strong) NSView *documentView;
@end

@interface NSTextStorage : NSObject
@property (readonly, strong) NSMutableString *mutableString;
@end

@interface NSTextView : NSView
+ (NSScrollView *)scrollableTextView;
@property (getter=isEditable) BOOL editable;
@property (nullable, strong) NSFont *font;
@property (nullable, readonly) NSTextStorage *textStorage;
- (void)scrollRangeToVisible:(NSRange)range;
@end

typedef NS_ENUM(NSInteger, NSUserInterfaceLayoutOrientation) {
    NSUserInterfaceLayoutOrientationVertical = 1,
};
typedef NS_ENUM(NSInteger, NSLayoutAttribute) {
    NSLayoutAttributeLeading = 5,
};

@interface NSStackView : NSView
+ (instancetype)stackViewWithViews:(NSArray<NSView *> *)views;
@property NSUserInterfaceLayoutOrientation orientation;
@property NSLayoutAttribute alignment;
@property NSEdgeInsets edgeInsets;
@end

typedef NS_OPTIONS(NSUInteger, NSWindowStyleMask) {
    NSWindowStyleMaskTitled = 1 << 0,
    NSWindowStyleMaskClosable = 1 << 1,
    NSWindowStyleMaskMiniaturizable = 1 << 2,
    NSWindowStyleMaskResizable = 1 << 3,
};
typedef NS_ENUM(NSUInteger, NSBackingStoreType) {
    NSBackingStoreBuffered = 2,
};

@interface NSWindow : NSObject
- (instancetype)initWithContentRect:(NSRect)rect
                          styleMask:(NSWindowStyleMask)style
                            backing:(NSBackingStoreType)backing
                              defer:(BOOL)defer;
@property (copy) NSString *title;
@property (nullable, strong) NSView *contentView;
@property (getter=isReleasedWhenClosed) BOOL releasedWhenClosed;
- (void)center;
- (void)makeKeyAndOrderFront:(nullable id)sender;
@end

@class NSMenu;

@interface NSMenuItem : NSObject
@property (nullable, strong) NSMenu *submenu;
@end

@interface NSMenu : NSObject
- (NSMenuItem *)addItemWithTitle:(NSString *)title
                          action:(nullable SEL)action
                   keyEquivalent:(NSString *)key;
- (void)addItem:(NSMenuItem *)item;
@end

typedef NS_ENUM(NSInteger, NSApplicationActivationPolicy) {
    NSApplicationActivationPolicyRegular = 0,
};

@class NSApplication;

@protocol NSApplicationDelegate <NSObject>
@optional
- (void)applicationDidFinishLaunching:(NSNotification *)notification;
- (BOOL)applicationShouldTerminateAfterLastWindowClosed:(NSApplication *)application;
@end

@interface NSApplication : NSObject
+ (NSApplication *)sharedApplication;
@property (nullable, weak) id<NSApplicationDelegate> delegate;
@property (nullable, strong) NSMenu *mainMenu;
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)policy;
- (void)run;
- (void)terminate:(nullable id)sender;
@end

@interface NSWorkspace : NSObject
+ (NSWorkspace *)sharedWorkspace;
- (BOOL)openURL:(NSURL *)url;
@end

NS_ASSUME_NONNULL_END
