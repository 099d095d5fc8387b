#include "platform/normal_forms.hpp"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <utf8proc.h>

namespace tavelin {

namespace {

struct MallocFree {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

bool isLeftAlone(utf8proc_int32_t character) noexcept {
    return (character >= 0x2000 && character <= 0x2fff) ||
           (character >= 0xf900 && character <= 0xfaff) ||
           (character >= 0x2f800 && character <= 0x2faff);
}

// Appends the form of a piece in which every character may change.
bool appendForm(std::string_view piece, int form, std::string& result) {
    if (piece.empty()) {
        return true;
    }
    utf8proc_uint8_t* mapped = nullptr;
    const utf8proc_ssize_t length =
        utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(piece.data()),
                     static_cast<utf8proc_ssize_t>(piece.size()), &mapped,
                     static_cast<utf8proc_option_t>(UTF8PROC_STABLE | form));
    const std::unique_ptr<utf8proc_uint8_t, MallocFree> owner(mapped);
    if (length == UTF8PROC_ERROR_NOMEM) {
        throw std::bad_alloc();
    }
    if (length < 0) {
        return false;
    }
    result.append(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
    return true;
}

std::string inForm(std::string_view text, int form) {
    std::string result;
    std::size_t start = 0; // of the piece that is yet to be appended
    for (std::size_t at = 0; at < text.size();) {
        utf8proc_int32_t character = 0;
        const utf8proc_ssize_t length =
            utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at),
                             static_cast<utf8proc_ssize_t>(text.size() - at), &character);
        if (length <= 0) {
            return std::string(text);
        }
        const auto end = at + static_cast<std::size_t>(length);
        if (isLeftAlone(character)) {
            if (!appendForm(text.substr(start, at - start), form, result)) {
                return std::string(text);
            }
            result += text.substr(at, end - at);
            start = end;
        }
        at = end;
    }
    return appendForm(text.substr(start), form, result) ? result : std::string(text);
}

} // namespace

bool mayHaveOtherForms(std::string_view text) noexcept {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

std::string composed(std::string_view text) {
    return inForm(text, UTF8PROC_COMPOSE);
}

std::string decomposed(std::string_view text) {
    return inForm(text, UTF8PROC_DECOMPOSE);
}

} // namespace tavelin
