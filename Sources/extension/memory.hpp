/// Ownership of Objective-C objects, written once for both ways the binding is compiled: with
/// automatic reference counting on macOS, and without it on GNUstep, whose runtime lacks it.
#pragma once

#import <Foundation/Foundation.h>
#include <utility>

namespace tavelin {

/// Holds one reference to an object, or none, for as long as it lives. `Object` is a pointer type:
/// Strong<FSTask*>. For every object that a C++ object keeps.
template<typename Object>
class Strong {
  public:
    Strong() = default;
    /// Keeps the object; nil is fine.
    explicit Strong(Object object) : object_(retained(object)) {}
    /// One more reference to the same object.
    Strong(const Strong& other) : object_(retained(other.object_)) {}
    /// Leaves the other one empty, without counting.
    Strong(Strong&& other) noexcept : object_(std::exchange(other.object_, nil)) {}
    /// By value, so that the old object is released after the new one is held.
    Strong& operator=(Strong other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Strong() { released(object_); }

    /// The object, which stays kept. Nil when there is none.
    [[nodiscard]] Object get() const { return object_; }

  private:
#if __has_feature(objc_arc)
    static Object retained(Object object) {
        return object;
    }
    static void released(Object) {}
#else
    static Object retained(Object object) {
        return [object retain];
    }
    static void released(Object object) {
        [object release];
    }
#endif

    Object object_ = nil;
};

/// What was just made with +alloc and an initialiser, as a method may return it.
template<typename Object>
[[nodiscard]] Object made(Object object) {
#if __has_feature(objc_arc)
    return object;
#else
    return [object autorelease];
#endif
}

} // namespace tavelin
