// expect: only available on macOS 27
#import <FSKit/FSKit.h>

BOOL reclaim(FSItem *item) {
    return [item tryReclaimWithBlock:^{
    }];
}
