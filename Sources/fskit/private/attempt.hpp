/// How every request runs its work: what is thrown becomes the error of its reply, in one place,
/// and the reply itself stands outside of the try, so that it is given exactly once even when the
/// handler throws.
#pragma once

#include "fskit/posix_error.hpp"

#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tavelin {

template<typename Value>
struct Attempt {
    std::optional<Value> value;
    std::optional<fskit::Error> error;

    explicit operator bool() const noexcept { return value.has_value(); }
};

template<>
struct Attempt<void> {
    std::optional<fskit::Error> error;

    explicit operator bool() const noexcept { return !error; }
};

/// Runs `work`; a failure is recorded and answered under `op`, the request's full signature.
template<typename Work>
[[nodiscard]] auto attempt(std::string_view op, Work&& work)
    -> Attempt<std::invoke_result_t<Work&>> {
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Work&>>) {
            work();
            return {};
        } else {
            return {work(), std::nullopt};
        }
    } catch (const std::exception& error) {
        Attempt<std::invoke_result_t<Work&>> failed;
        failed.error = posixError(error, op);
        return failed;
    }
}

} // namespace tavelin
