/// What a request answered: its value, or the error.
///
/// The one result type above the volume core. A caller that passes errors on tests the outcome and
/// asks for error(); any other calls get(), which hands out the value or throws the Error. A plain
/// value that owns what it holds; one thread at a time.
#pragma once

#include "fskit/api/error.hpp"

#include <optional>
#include <utility>

namespace fskit {

/// Holds exactly one of the two.
template<typename Value>
class [[nodiscard]] Outcome {
  public:
    /// Implicit, so that a request returns its value or its error as it is.
    Outcome(Value value) : value_(std::move(value)) {}
    Outcome(Error error) : error_(std::move(error)) {}

    /// Whether the request succeeded.
    explicit operator bool() const noexcept { return value_.has_value(); }

    /// The value of a successful outcome; only after testing.
    [[nodiscard]] Value& operator*() noexcept { return *value_; }
    [[nodiscard]] const Value& operator*() const noexcept { return *value_; }
    [[nodiscard]] Value* operator->() noexcept { return &*value_; }
    [[nodiscard]] const Value* operator->() const noexcept { return &*value_; }

    /// The error of a failed outcome; only after testing.
    [[nodiscard]] const Error& error() const noexcept { return *error_; }

    /// The value, or throws the error.
    Value get() && {
        if (error_) {
            throw *std::move(error_);
        }
        return *std::move(value_);
    }

  private:
    std::optional<Value> value_;
    std::optional<Error> error_;
};

/// A request that answers nothing but whether it succeeded.
template<>
class [[nodiscard]] Outcome<void> {
  public:
    Outcome() = default;
    Outcome(Error error) : error_(std::move(error)) {}
    /// Success when there is no error.
    Outcome(std::optional<Error> error) : error_(std::move(error)) {}
    /// Success or failure of a request whose value is not wanted.
    template<typename Value>
    static Outcome of(const Outcome<Value>& other) {
        return other ? Outcome() : Outcome(other.error());
    }

    /// Whether the request succeeded.
    explicit operator bool() const noexcept { return !error_; }
    [[nodiscard]] const Error& error() const noexcept { return *error_; }

    void get() && {
        if (error_) {
            throw *std::move(error_);
        }
    }

  private:
    std::optional<Error> error_;
};

} // namespace fskit

namespace tavelin {
using fskit::Outcome;
}
