/// What a listing callback of the bridge collects.
#pragma once

#include "platform/checked.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

namespace tavelin {

/// The items of one listing in the making, in delivery order. The bridge's callback is given the
/// box as its context; as nothing may throw through the bridge, a failure to append is kept and
/// thrown after the bridge has returned.
template<typename Item>
class ListingBox {
  public:
    std::vector<Item> items;

    /// The box behind a callback's context. A missing context or name stops the process.
    static ListingBox& of(void* context, const char* name) noexcept {
        if (context == nullptr || name == nullptr) {
            fatal("a listing callback was called without a context or a name");
        }
        return *static_cast<ListingBox*>(context);
    }

    /// Appends an item and has `fill` fill it; answers the callback's result, non-zero to end the
    /// listing.
    template<typename Fill>
    std::int32_t append(Fill&& fill) noexcept {
        try {
            if (items.size() == items.capacity()) {
                // The system takes longer to give fresh memory than a move into it takes.
                items.reserve(std::max(kFirstItems, items.size() * kGrowth));
            }
            std::forward<Fill>(fill)(items.emplace_back());
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
    static constexpr std::size_t kFirstItems = 64;
    static constexpr std::size_t kGrowth = 4;

    std::exception_ptr failure_;
};

} // namespace tavelin
