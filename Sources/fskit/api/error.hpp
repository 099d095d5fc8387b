/// Errors as FSKit passes them: a domain and a number in it.
///
/// POSIX numbers are macOS's on every host (platform/error_numbers.hpp).
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace fskit {

/// Names of domains, as Foundation and FSKit spell them.
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view FSKitErrorDomain = "FSKitErrorDomain";

/// A value; also thrown where FSKit's Objective-C form has an error out-parameter. Copies share
/// what they say and are cheap; copying never fails.
class Error : public std::exception {
  public:
    /// Copies its arguments; may throw std::bad_alloc. `code` is a number of the domain.
    Error(std::string_view domain, std::int64_t code, std::string localizedDescription)
        : content_(std::make_shared<const Content>(
              Content{std::string(domain), code, std::move(localizedDescription)})) {}
    // Without moves: there is no such thing as an error that says nothing.
    Error(const Error&) = default;
    Error& operator=(const Error&) = default;

    /// Valid as long as this error or a copy of it lives.
    const std::string& domain() const noexcept { return content_->domain; }
    std::int64_t code() const noexcept { return content_->code; }
    const std::string& localizedDescription() const noexcept {
        return content_->localizedDescription;
    }
    /// The text for people, the same as localizedDescription().
    const char* what() const noexcept override { return localizedDescription().c_str(); }

    /// Whether code() is an errno of macOS. Hosts translate no other numbers.
    bool isPOSIX() const noexcept { return domain() == NSPOSIXErrorDomain; }

    /// Two errors are the same when domain and code are; the text is for people.
    friend bool operator==(const Error& a, const Error& b) noexcept {
        return a.code() == b.code() && a.domain() == b.domain();
    }

  private:
    /// Shared and immutable, so that a copy of an error never fails.
    struct Content {
        std::string domain;
        std::int64_t code;
        std::string localizedDescription;
    };
    std::shared_ptr<const Content> content_;
};

/// The error object of a macOS errno, in the POSIX domain. Those of the numbers that macOS knows
/// are made once, so that answering one never fails.
[[nodiscard]] Error fs_errorForPOSIXError(std::int32_t code);

} // namespace fskit
