// The part of libdispatch that Tavelin uses, declared by hand; see Foundation.h.
#pragma once

#import <Foundation/Foundation.h>

@protocol OS_dispatch_object <NSObject>
@end
@protocol OS_dispatch_queue <OS_dispatch_object>
@end
@protocol OS_dispatch_source <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_queue> *dispatch_queue_t;
typedef NSObject<OS_dispatch_source> *dispatch_source_t;
typedef uint64_t dispatch_time_t;
typedef void (^dispatch_block_t)(void);
typedef const struct dispatch_source_type_s *dispatch_source_type_t;

enum : unsigned int { QOS_CLASS_UTILITY = 0x11 };
enum : dispatch_time_t { DISPATCH_TIME_NOW = 0 };
#define NSEC_PER_SEC 1000000000ull

extern "C" {
extern const struct dispatch_source_type_s _dispatch_source_type_timer;
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)
dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags);
dispatch_queue_t dispatch_get_main_queue(void);
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue);
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t leeway);
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler);
void dispatch_source_cancel(dispatch_source_t source);
void dispatch_activate(dispatch_source_t source);
}
