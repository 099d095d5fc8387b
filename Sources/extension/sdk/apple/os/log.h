// The part of os/log.h that Tavelin uses, declared by hand. The formats are checked as printf's
// are; the privacy markers in braces are the unified log's own and are left out of that check.
#pragma once

#import <Foundation/Foundation.h>

@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log> *os_log_t;
typedef uint8_t os_log_type_t;
enum : os_log_type_t { OS_LOG_TYPE_INFO = 0x01, OS_LOG_TYPE_ERROR = 0x10 };

extern "C" {
os_log_t os_log_create(const char *subsystem, const char *category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);
void _tvl_os_log(os_log_t log, os_log_type_t type, const char *format, ...);
}
#define os_log_with_type(log, type, format, ...)                                                   \
    _tvl_os_log(log, type, format __VA_OPT__(, ) __VA_ARGS__)
