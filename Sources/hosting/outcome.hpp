/// What a request answered: its value, or the error.
///
/// A host that translates errors itself (the FUSE host) tests it and asks for error(); everybody
/// else calls get(), which hands out the value or throws the fskit::Error. Plain values; one thread
/// at a time.
#pragma once

#include "fskit/api/error.hpp"

#include <optional>
#include <utility>

namespace tavelin {

template<typename Value>
class [[nodiscard]] Outcome {
  public:
    Outcome(Value value) : value_(std::move(value)) {}
    Outcome(fskit::Error error) : error_(std::move(error)) {}

    explicit operator bool() const noexcept { return value_.has_value(); }

    /// The value of a successful outcome; only after testing.
    [[nodiscard]] Value& operator*() noexcept { return *value_; }
    [[nodiscard]] const Value& operator*() const noexcept { return *value_; }
    [[nodiscard]] Value* operator->() noexcept { return &*value_; }
    [[nodiscard]] const Value* operator->() const noexcept { return &*value_; }

    /// The error of a failed outcome; only after testing.
    [[nodiscard]] const fskit::Error& error() const noexcept { return *error_; }

    /// The value, or throws the error.
    Value get() && {
        if (error_) {
            throw *std::move(error_);
        }
        return *std::move(value_);
    }

  private:
    std::optional<Value> value_;
    std::optional<fskit::Error> error_;
};

template<>
class [[nodiscard]] Outcome<void> {
  public:
    Outcome() = default;
    Outcome(fskit::Error error) : error_(std::move(error)) {}
    Outcome(std::optional<fskit::Error> error) : error_(std::move(error)) {}

    explicit operator bool() const noexcept { return !error_; }
    [[nodiscard]] const fskit::Error& error() const noexcept { return *error_; }

    void get() && {
        if (error_) {
            throw *std::move(error_);
        }
    }

  private:
    std::optional<fskit::Error> error_;
};

} // namespace tavelin
