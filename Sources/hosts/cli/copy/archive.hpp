/// Owners of libarchive's objects, and the streams of files in tar archives. One thread at a time.
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/text.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <clocale>
#include <memory>
#include <string>
#include <string_view>

namespace tavelin::cli {

/// Named streams are extended attributes of this namespace in an archive, as tar(1) writes those of
/// a file on Linux.
inline constexpr std::string_view kArchiveStreamPrefix = "user.";

struct ArchiveEntryFree {
    void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
using ArchiveEntry = std::unique_ptr<archive_entry, ArchiveEntryFree>;

struct ArchiveFree {
    // Reports nothing that is not known: what was written is closed by its writer.
    void operator()(archive* one) const noexcept { archive_free(one); }
};
using Archive = std::unique_ptr<archive, ArchiveFree>;

/// Throws Failure with the archive's own message.
[[noreturn]] inline void throwArchiveError(archive* one, std::string_view stream) {
    const char* const text = archive_error_string(one);
    throw Failure(std::string(stream) + ": " + escaped(text == nullptr ? "unknown error" : text));
}

/// While it lives, texts of this thread are UTF-8, which libarchive asks the locale for: archives
/// have names in UTF-8.
class UTF8Locale {
  public:
    UTF8Locale() : own_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (own_ != nullptr) {
            before_ = uselocale(own_);
        }
    }
    ~UTF8Locale() {
        if (own_ != nullptr) {
            uselocale(before_);
            freelocale(own_);
        }
    }
    UTF8Locale(const UTF8Locale&) = delete;
    UTF8Locale& operator=(const UTF8Locale&) = delete;

  private:
    locale_t own_;
    locale_t before_ = nullptr;
};

} // namespace tavelin::cli
