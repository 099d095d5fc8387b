/// Why a volume could not be opened, for people and for programs.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tavelin {

/// what() is a whole sentence part for the user: "disk.img: not an NTFS volume".
class OpenError : public std::runtime_error {
  public:
    /// For programs, which must not take messages apart.
    enum class Reason {
        notFound,       ///< no such file or device
        permission,     ///< the host does not let this user at it
        inUse,          ///< another program has it open for itself
        notBlockDevice, ///< neither an image file nor a block device
        notNTFS,        ///< the probe does not recognise it
        ioError,        ///< the device fails
        refused,        ///< NTFS, but it cannot be mounted: see code()
    };

    /// `code` is the underlying error in macOS numbers, 0 where there is none.
    OpenError(Reason reason, std::int32_t code, const std::string& image, const std::string& why)
        : std::runtime_error(image + ": " + why), reason_(reason), code_(code) {}

    [[nodiscard]] Reason reason() const noexcept { return reason_; }
    /// The error of the system or the volume behind it, in macOS numbers; 0 where there is none.
    [[nodiscard]] std::int32_t code() const noexcept { return code_; }

  private:
    Reason reason_;
    std::int32_t code_;
};

} // namespace tavelin
