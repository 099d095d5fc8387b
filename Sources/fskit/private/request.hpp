/// The shape that all requests share: count, do the work, and turn what was thrown into the error
/// of the answer, in one place.
#pragma once

#include "diagnostics/op_counter.hpp"
#include "fskit/api/outcome.hpp"
#include "fskit/posix_error.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <string_view>
#include <type_traits>

namespace tavelin {

/// Thrown by a request that was given no item where it takes one. Answered ENOENT and not tallied:
/// it is the host's mistake and says nothing about the volume.
struct MissingItem : std::exception {};

/// A request's bare name, as a template argument.
template<std::size_t size>
struct RequestName {
    // NOLINTNEXTLINE(google-explicit-constructor): made from the literal between the brackets
    constexpr RequestName(const char (&literal)[size]) { std::copy_n(literal, size, text); }
    constexpr std::string_view view() const noexcept { return {text, size - 1}; }

    char text[size]{};
};

/// While one lives, the requests of its thread are the module's own, made for a host's request that
/// is counted by itself, or for none. They are neither counted nor tallied.
class OwnRequests {
  public:
    OwnRequests() noexcept { ++depth_; }
    ~OwnRequests() { --depth_; }
    OwnRequests(const OwnRequests&) = delete;
    OwnRequests& operator=(const OwnRequests&) = delete;

    [[nodiscard]] static bool areMade() noexcept { return depth_ != 0; }

  private:
    static constinit inline thread_local int depth_ = 0;
};

/// Counts one request of the host, at the price of one addition.
template<RequestName name>
void countRequest() noexcept {
    if (OwnRequests::areMade()) {
        return;
    }
    static OpCounter::Count& count = OpCounter::shared().count(name.view());
    count.hit();
}

template<typename Result>
struct OutcomeOf {
    using Type = Outcome<Result>;
};
template<typename Value>
struct OutcomeOf<Outcome<Value>> {
    using Type = Outcome<Value>;
};

/// Runs `work`, which answers a value or an Outcome. A failure is tallied under `name`.
template<RequestName name, typename Work>
auto attempt(Work&& work) -> typename OutcomeOf<std::invoke_result_t<Work&>>::Type {
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Work&>>) {
            work();
            return {};
        } else {
            return work();
        }
    } catch (const MissingItem&) {
        return fskit::fs_errorForPOSIXError(kENOENT);
    } catch (const std::exception& error) {
        return OwnRequests::areMade() ? hostError(error) : posixError(error, name.view());
    }
}

/// attempt() for a request that is counted under the same name.
template<RequestName name, typename Work>
auto request(Work&& work) {
    countRequest<name>();
    return attempt<name>(work);
}

} // namespace tavelin
