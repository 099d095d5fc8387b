// Value classes as the double makes them: one map of fields behind each object.
#pragma once

#import "extension/double/fskit_double.h"

#include "extension/memory.hpp"

#include <map>
#include <string_view>

struct State {
    std::map<std::string_view, uint64_t> numbers;
    std::map<std::string_view, timespec> times;
    std::map<std::string_view, tavelin::Strong<id>> objects;
};

@interface StateBox : NSObject {
  @public
    State _state;
}
@end

#define STATE (static_cast<StateBox *>(_storage)->_state)
#define WITH_STATE                                                                                 \
    -(instancetype)initDouble {                                                                    \
        if ((self = [super init])) {                                                               \
            _storage = [StateBox new];                                                             \
        }                                                                                          \
        return self;                                                                               \
    }                                                                                              \
    -(void)dealloc {                                                                               \
        [_storage release];                                                                        \
        [super dealloc];                                                                           \
    }
#define WITH_PLAIN_INIT                                                                            \
    -(instancetype)init {                                                                          \
        return [self initDouble];                                                                  \
    }
// Setting an attribute marks it valid, as in FSKit.
#define VALID_NUMBER(type, name, Setter, bit)                                                      \
    -(type)name {                                                                                  \
        return static_cast<type>(STATE.numbers[#name]);                                            \
    }                                                                                              \
    -(void)set##Setter : (type)value {                                                             \
        STATE.numbers[#name] = static_cast<uint64_t>(value);                                       \
        STATE.numbers["valid"] |= static_cast<uint64_t>(bit);                                      \
    }
#define NUMBER(type, name, Setter) VALID_NUMBER(type, name, Setter, 0)
#define ATTRIBUTE(type, name, Setter) VALID_NUMBER(type, name, Setter, FSItemAttribute##Setter)
#define TIME_ATTRIBUTE(name, Setter)                                                               \
    -(struct timespec)name {                                                                       \
        return STATE.times[#name];                                                                 \
    }                                                                                              \
    -(void)set##Setter : (struct timespec)value {                                                  \
        STATE.times[#name] = value;                                                                \
        STATE.numbers["valid"] |= static_cast<uint64_t>(FSItemAttribute##Setter);                  \
    }
#define OBJECT(type, name, Setter)                                                                 \
    -(type)name {                                                                                  \
        return STATE.objects[#name].get();                                                         \
    }                                                                                              \
    -(void)set##Setter : (type)value {                                                             \
        STATE.objects[#name] = tavelin::Strong<id>(value);                                         \
    }
