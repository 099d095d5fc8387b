// The part of Foundation (and of the libSystem headers it brings along) that Tavelin uses, declared
// by hand for type-checking the Objective-C++ files as macOS code where there is no macOS SDK.
#pragma once

#include <os/availability.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __arm64__
typedef bool BOOL;
#else
typedef signed char BOOL;
#endif
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr

typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef unsigned long long UInt64;
typedef double NSTimeInterval;
typedef struct _NSZone NSZone;

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_UNAVAILABLE __attribute__((unavailable))
#define NS_DESIGNATED_INITIALIZER __attribute__((objc_designated_initializer))
#define NS_FORMAT_FUNCTION(text, first) __attribute__((format(__NSString__, text, first)))
#define NS_ENUM(type, name)                                                                        \
    enum __attribute__((enum_extensibility(open))) name : type name;                               \
    enum name : type
#define NS_OPTIONS(type, name)                                                                     \
    type name;                                                                                     \
    enum __attribute__((flag_enum)) : type

NS_ASSUME_NONNULL_BEGIN

@protocol NSObject
- (BOOL)isKindOfClass:(Class)type;
- (BOOL)respondsToSelector:(SEL)aSelector;
- (BOOL)isEqual:(id _Nullable)object;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
+ (Class)class;
+ (BOOL)instancesRespondToSelector:(SEL)aSelector;
- (instancetype)init;
@end

@protocol NSCopying
- (id)copyWithZone:(NSZone *_Nullable)zone;
@end

typedef struct _NSRange {
    NSUInteger location;
    NSUInteger length;
} NSRange;

static inline NSRange NSMakeRange(NSUInteger location, NSUInteger length) {
    return NSRange{location, length};
}

@interface NSString : NSObject <NSCopying>
@property (readonly) NSUInteger length;
@property (nullable, readonly) const char *UTF8String;
+ (instancetype)stringWithFormat:(NSString *)format, ... NS_FORMAT_FUNCTION(1, 2);
- (nullable instancetype)initWithBytes:(const void *)bytes
                                length:(NSUInteger)length
                              encoding:(NSUInteger)encoding;
- (BOOL)isEqualToString:(NSString *)other;
@end

@interface NSMutableString : NSString
- (void)appendString:(NSString *)text;
- (void)deleteCharactersInRange:(NSRange)range;
@end

@interface NSConstantString : NSString
@end

enum : NSUInteger { NSUTF8StringEncoding = 4 };

@interface NSData : NSObject
@property (readonly) NSUInteger length;
@property (nullable, readonly) const void *bytes;
- (instancetype)initWithBytes:(const void *_Nullable)bytes length:(NSUInteger)length;
@end

typedef struct {
    unsigned long state;
    id _Nullable __unsafe_unretained *_Nullable itemsPtr;
    unsigned long *_Nullable mutationsPtr;
    unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState *)state
                                  objects:(id _Nullable __unsafe_unretained[_Nonnull])buffer
                                    count:(NSUInteger)length;
@end

@interface NSArray<__covariant ObjectType> : NSObject <NSFastEnumeration>
@property (readonly) NSUInteger count;
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nonnull])objects
                           count:(NSUInteger)count;
@end

@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
- (instancetype)initWithCapacity:(NSUInteger)capacity;
- (void)addObject:(ObjectType)object;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSFastEnumeration>
- (nullable ObjectType)objectForKey:(KeyType)key;
@end

@interface NSUUID : NSObject
- (instancetype)initWithUUIDBytes:(const unsigned char[_Nonnull 16])bytes;
@end

@interface NSURL : NSObject
@property (nullable, readonly, copy) NSString *path;
+ (nullable instancetype)URLWithString:(NSString *)text;
@end

extern "C" NSString *const NSPOSIXErrorDomain;

@interface NSError : NSObject
@property (readonly) NSInteger code;
@property (readonly, copy) NSString *domain;
@property (readonly, copy) NSString *localizedDescription;
+ (instancetype)errorWithDomain:(NSString *)domain
                           code:(NSInteger)code
                       userInfo:(NSDictionary *_Nullable)userInfo;
@end

@interface NSProgress : NSObject
@property int64_t completedUnitCount;
+ (NSProgress *)progressWithTotalUnitCount:(int64_t)count;
@end

@interface NSBundle : NSObject
+ (NSBundle *)mainBundle;
@property (nullable, readonly, copy) NSDictionary<NSString *, id> *infoDictionary;
@end

@interface NSProcessInfo : NSObject
+ (NSProcessInfo *)processInfo;
@property (readonly, copy) NSString *operatingSystemVersionString;
@end

@interface NSFileManager : NSObject
+ (NSFileManager *)defaultManager;
- (nullable NSURL *)containerURLForSecurityApplicationGroupIdentifier:(NSString *)group;
@end

@interface NSNotification : NSObject
@end

@interface NSTimer : NSObject
+ (NSTimer *)scheduledTimerWithTimeInterval:(NSTimeInterval)interval
                                    repeats:(BOOL)repeats
                                      block:(void (^)(NSTimer *timer))block;
@end

NS_ASSUME_NONNULL_END
