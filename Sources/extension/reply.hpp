/// Serving one request of FSKit: its reply block runs exactly once, whatever happens.
///
/// The front end answers a request with a value before it returns. serve() turns that value, or
/// whatever was thrown, into the block's arguments first and calls the block last, at one place,
/// with nothing locked and nothing left that could throw.
#pragma once

#include "diagnostics/log.hpp"
#include "extension/values.hpp"
#include "fskit/api/outcome.hpp"
#include "platform/error_numbers.hpp"

#import <FSKit/FSKit.h>
#include <exception>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace tavelin {

/// The arguments of a reply whose request failed: the error where the block takes one, else nothing
/// (nil, 0). Also what a block is called with when nothing could be made for it.
template<typename... Arguments>
std::tuple<Arguments...> failure([[maybe_unused]] NSError* error) {
    const auto argument = [error]<typename Argument>(std::type_identity<Argument>) -> Argument {
        if constexpr (std::is_same_v<Argument, NSError*>) {
            return error;
        } else {
            return Argument{};
        }
    };
    return {argument(std::type_identity<Arguments>())...};
}

/// Makes the arguments of a reply from what a request answered. The first form takes arguments that
/// the request has made itself.
template<typename... Arguments>
std::tuple<Arguments...> argumentsOf(std::tuple<Arguments...> arguments) {
    return arguments;
}
/// For a block that takes an error alone: nil for success.
template<typename Error>
std::tuple<Error> argumentsOf(const Outcome<void>& outcome) {
    return {outcome ? nil : toFSKit(outcome.error())};
}
/// For a block that takes a value and an error. The value is converted where FSKit has another
/// type.
template<typename Value, typename Error, typename Answer>
std::tuple<Value, Error> argumentsOf(const Outcome<Answer>& outcome) {
    if (!outcome) {
        return failure<Value, Error>(toFSKit(outcome.error()));
    }
    if constexpr (std::is_convertible_v<const Answer&, Value>) {
        return {*outcome, nil};
    } else {
        return {toFSKit(*outcome), nil};
    }
}

/// The same for a block of other arguments: `success` makes them from the value.
template<typename... Arguments, typename Answer, typename Success>
std::tuple<Arguments...> argumentsOf(const Outcome<Answer>& outcome, const Success& success) {
    return outcome ? success(*outcome) : failure<Arguments...>(toFSKit(outcome.error()));
}

/// Runs `request`, which answers an Outcome or the arguments, and replies. A C++ exception ends
/// here and becomes the request's error: beyond, it would end the extension with the volume
/// mounted.
template<typename... Arguments, typename Request>
void serve(void (^block)(Arguments...), const Request& request) noexcept {
    /// Made completely before the block runs: FSKit may call back into the volume from it.
    std::tuple<Arguments...> arguments;
    /// Set where the request itself did not answer. The arguments are made from it outside the
    /// handlers, as making them may fail in its turn and end the process there.
    std::int32_t code = 0;
    try {
        arguments = argumentsOf<Arguments...>(request());
    } catch (const std::bad_alloc&) {
        code = kENOMEM;
    } catch (const std::exception& error) {
        log().error(std::string("a request failed unexpectedly: ") + error.what());
        code = kEIO;
    } catch (...) {
        log().error("a request failed unexpectedly");
        code = kEIO;
    }
    if (code != 0) {
        arguments = failure<Arguments...>(fs_errorForPOSIXError(code));
    }
    std::apply(block, arguments);
}

} // namespace tavelin
