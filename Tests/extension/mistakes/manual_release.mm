// expect: 'release'
#import <Foundation/Foundation.h>

void drop(NSObject *object) {
    [object release];
}
