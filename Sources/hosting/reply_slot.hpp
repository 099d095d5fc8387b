/// One request's reply, received exactly once.
#pragma once

#include "fskit/api/volume.hpp"
#include "platform/checked.hpp"

#include <atomic>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace tavelin {

/// Lives on the stack of the thread that sends a request, until the request has returned. The front
/// end answers every request before it returns, on whatever thread; no answer by then, or a second
/// one, is a fault of the module that would leave a kernel waiting or confused: the process stops
/// and says which request it was.
template<typename... Values>
class ReplySlot {
  public:
    explicit ReplySlot(std::string_view request) : request_(request) {}
    ReplySlot(const ReplySlot&) = delete;
    ReplySlot& operator=(const ReplySlot&) = delete;

    /// What to give to the request. Small enough that no std::function allocates for it.
    [[nodiscard]] auto handler() {
        return [this](Values... values, fskit::MaybeError error) {
            if (answers_.fetch_add(1) > 0) {
                stop("answered twice");
            }
            values_ = std::tuple<Values...>(std::move(values)...);
            error_ = std::move(error);
        };
    }

    /// To be called once, when the request has returned.
    void check() const {
        if (answers_.load() != 1) {
            stop("not answered");
        }
    }

    [[nodiscard]] fskit::MaybeError& error() noexcept { return error_; }
    template<std::size_t index>
    [[nodiscard]] auto& value() noexcept {
        return std::get<index>(values_);
    }

  private:
    [[noreturn]] void stop(std::string_view fault) const {
        fatal(std::string(request_) + " was " + std::string(fault));
    }

    const std::string_view request_;
    std::atomic<int> answers_ = 0;
    std::tuple<Values...> values_;
    fskit::MaybeError error_;
};

} // namespace tavelin
