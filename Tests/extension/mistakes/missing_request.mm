// expect: method 'closeItem:keepingModes:replyHandler:' in protocol .* not implemented
#import <FSKit/FSKit.h>

@interface Opener : NSObject <FSVolumeOpenCloseOperations>
@end

@implementation Opener
- (void)openItem:(FSItem *)item
       withModes:(FSVolumeOpenModes)modes
    replyHandler:(void (^)(NSError *error))reply {
    (void)item, (void)modes;
    reply(nil);
}
@end
