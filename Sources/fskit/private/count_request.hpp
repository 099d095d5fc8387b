/// Counting requests, at the price of one addition.
#pragma once

#include "diagnostics/op_counter.hpp"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace tavelin {

/// A name that is a template argument.
template<std::size_t size>
struct RequestName {
    // NOLINTNEXTLINE(google-explicit-constructor): made from the literal between the brackets
    constexpr RequestName(const char (&literal)[size]) { std::copy_n(literal, size, text); }

    char text[size]{};
};

/// Counts one request under its bare name: countRequest<"lookupItem">().
template<RequestName name>
void countRequest() noexcept {
    static OpCounter::Count& count =
        OpCounter::shared().count(std::string_view(name.text, sizeof name.text - 1));
    count.hit();
}

} // namespace tavelin
