// The target of a link of Windows, in whatever spelling it has.
#pragma once

#include "NTFSBridge/reparse.hpp"

namespace ntb {

// A path in UTF-16 with backslashes, as far as it could be understood:
//   \??\C:\x  C:\x  \x  /??/x    from the root of a volume. Volumes have no letters here, so every
//                                letter is taken for this volume's.
//   x  ..\x                      from the link's directory
//   \??\Volume{...}\x  \\server\share\x    elsewhere
class link_path {
  public:
    enum class kind { none, relative, of_volume, elsewhere };

    // Of kind none when the reparse point is neither a symbolic link nor a junction of Windows, or
    // is damaged.
    explicit link_path(const reparse_point& point) noexcept;

    [[nodiscard]] kind form() const noexcept { return form_; }
    [[nodiscard]] std::span<const ntfschar> units() const noexcept { return units_; }

    // Gives the names on the way the case that they have on the volume: Windows does not tell
    // "Real" from "real", and hosts do. A name that is there as written stays, and so does all from
    // the first name that is not there in any case, or leads to no plain directory. `link` is the
    // link's inode; no other may be open.
    void correct_case(ntfs_inode* link) noexcept;

  private:
    void understand() noexcept;

    std::unique_ptr<ntfschar[]> owned_;
    std::span<ntfschar> units_; // without prefix and drive letter where they mean this volume
    kind form_ = kind::none;
};

} // namespace ntb
