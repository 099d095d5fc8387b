/// How a mount that was refused goes on: with a name for the error, or once more read-only. Pure
/// but for what `open` does; any thread.
#pragma once

#include "core/ntfs_error.hpp"
#include "platform/error_numbers.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>

namespace tavelin::Driver2 {

/// A short stable name for the error of a mount: kEPERM "hibernated_or_fast_startup", kEIO
/// "io_error", kEINVAL "not_ntfs", kENOSPC "no_space", kEROFS "read_only", others "errno_<code>".
[[nodiscard]] std::string describe(std::int32_t code);

template<typename T>
/// What an open gave, and in which way.
struct Opened {
    T value;
    bool fellBack = false; ///< opened read-only although read-write was asked for
};

/// Calls open(readOnly). When a read-write open is refused because the volume is write-protected
/// (kEROFS), hibernated or fast-started (kEPERM), tries once more read-only. Throws what the last
/// attempt threw.
template<typename Open>
[[nodiscard]] Opened<std::invoke_result_t<Open&, bool>> openWithReadOnlyFallback(bool readOnly,
                                                                                 Open&& open) {
    try {
        return {std::invoke(open, readOnly), false};
    } catch (const NTFSError& error) {
        if (readOnly || (error.code != kEROFS && error.code != kEPERM)) {
            throw;
        }
    }
    /// Outside the handler, so that an exception of this attempt replaces the first one.
    return {std::invoke(open, true), true};
}

} // namespace tavelin::Driver2
