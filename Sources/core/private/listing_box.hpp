/// What a listing callback of the bridge collects.
#pragma once

#include "platform/checked.hpp"

#include <cstdint>
#include <exception>

namespace tavelin {

/// A container of what one listing delivers, in that order. The bridge's callback is given the box
/// as its context; as nothing may throw through the bridge, a failure to append is kept and thrown
/// after the bridge has returned.
template<typename Items>
class ListingBox {
  public:
    Items items;

    /// The box behind a callback's context. A missing context or name stops the process.
    static ListingBox& of(void* context, const char* name) noexcept {
        if (context == nullptr || name == nullptr) {
            fatal("a listing callback was called without a context or a name");
        }
        return *static_cast<ListingBox*>(context);
    }

    /// Has `append` append an item; answers the callback's result, non-zero to end the listing.
    template<typename Append>
    std::int32_t append(const Append& append) noexcept {
        try {
            append(items);
            return 0;
        } catch (...) {
            failure_ = std::current_exception();
            return 1;
        }
    }

    void rethrowFailure() const {
        if (failure_ != nullptr) {
            std::rethrow_exception(failure_);
        }
    }

  private:
    std::exception_ptr failure_;
};

} // namespace tavelin
