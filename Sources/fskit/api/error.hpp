/// Errors as FSKit passes them: a domain and a number in it.
///
/// POSIX numbers are macOS's on every host (platform/error_numbers.hpp).
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace fskit {

inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view FSKitErrorDomain = "FSKitErrorDomain";

/// A value; also thrown where FSKit's Objective-C form has an error out-parameter.
class Error : public std::exception {
  public:
    Error(std::string_view domain, std::int64_t code, std::string localizedDescription)
        : domain_(domain), code_(code), localizedDescription_(std::move(localizedDescription)) {}

    const std::string& domain() const noexcept { return domain_; }
    std::int64_t code() const noexcept { return code_; }
    const std::string& localizedDescription() const noexcept { return localizedDescription_; }
    const char* what() const noexcept override { return localizedDescription_.c_str(); }

    bool isPOSIX() const noexcept { return domain_ == NSPOSIXErrorDomain; }

    /// Two errors are the same when domain and code are; the text is for people.
    friend bool operator==(const Error& a, const Error& b) noexcept {
        return a.code_ == b.code_ && a.domain_ == b.domain_;
    }

  private:
    std::string domain_;
    std::int64_t code_;
    std::string localizedDescription_;
};

/// The error object of a macOS errno, in the POSIX domain.
[[nodiscard]] Error fs_errorForPOSIXError(std::int32_t code);

} // namespace fskit
