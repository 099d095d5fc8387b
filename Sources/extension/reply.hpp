/// Serving one request of FSKit: its reply block runs exactly once, whatever happens.
///
/// The front end answers a request before it returns, on the thread of the request. A Reply
/// therefore lives no longer than the request, and what answers it may refer to the request's
/// local variables.
#pragma once

#include "diagnostics/log.hpp"
#include "extension/values.hpp"
#include "platform/error_numbers.hpp"

#import <FSKit/FSKit.h>
#include <exception>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

namespace tavelin {

/// The argument a reply gets when its request failed: the error where it takes one, else nothing
/// (nil, 0).
template<typename Argument>
Argument failedArgument(std::int32_t code) {
    if constexpr (std::is_same_v<Argument, NSError*>) {
        return fs_errorForPOSIXError(code);
    } else {
        return Argument{};
    }
}

/// A reply block, to be called like a function. The first call runs it; later ones are dropped.
template<typename... Arguments>
class Reply {
  public:
    explicit Reply(void (^block)(Arguments...)) : block_(block) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    void operator()(std::type_identity_t<Arguments>... arguments) {
        if (std::exchange(answered_, true)) {
            log().error("a request was answered twice; the second answer is dropped");
            return;
        }
        block_(arguments...);
    }

    /// Answers with an error, unless there was an answer already.
    void fail(std::int32_t code) {
        if (!answered_) {
            (*this)(failedArgument<Arguments>(code)...);
        }
    }

  private:
    void (^block_)(Arguments...);
    bool answered_ = false;
};

/// Runs `request` with the Reply it is to answer through. A C++ exception ends here and becomes the
/// request's error: beyond, it would end the extension with the volume mounted. So does a missing
/// answer, for which FSKit would leave the process that asked stuck in the kernel.
template<typename... Arguments, typename Request>
void serve(void (^block)(Arguments...), const Request& request) noexcept {
    Reply<Arguments...> reply(block);
    std::int32_t code = kEIO;
    try {
        request(reply);
    } catch (const std::bad_alloc&) {
        code = kENOMEM;
    } catch (const std::exception& error) {
        log().error(std::string("a request failed unexpectedly: ") + error.what());
    } catch (...) {
        log().error("a request failed unexpectedly");
    }
    reply.fail(code);
}

// What answers a reply of the common shapes, as the front end's reply handlers.

inline auto answerWith(Reply<NSError*>& reply) {
    return [&reply](const fskit::MaybeError& error) { reply(toFSKit(error)); };
}

inline auto answerWith(Reply<std::size_t, NSError*>& reply) {
    return [&reply](std::size_t count, const fskit::MaybeError& error) {
        reply(count, toFSKit(error));
    };
}

/// For replies of one object and an error: the object is nil when there is an error.
template<typename Object>
auto answerWith(Reply<Object*, NSError*>& reply) {
    return [&reply](const auto& value, const fskit::MaybeError& error) {
        reply(error ? nil : toFSKit(value), toFSKit(error));
    };
}

} // namespace tavelin
