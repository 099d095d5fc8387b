/// The canonical normal forms of Unicode, in which different systems write the same name: Windows
/// and Linux composed (NFC), programs of macOS mostly decomposed (NFD).
///
/// Characters that macOS leaves alone when it decomposes a name stay as they are here too: U+2000
/// to U+2FFF, U+F900 to U+FAFF and U+2F800 to U+2FAFF. Most of them would become another character
/// for good, and a name that has them would not be found again by it.
///
/// Pure; any thread. Text that is not valid UTF-8 has no other form. Throws std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tavelin {

/// Whether a text has characters beyond ASCII. Any other is the same in all forms.
[[nodiscard]] bool mayHaveOtherForms(std::string_view text) noexcept;
/// The form in which every accent is part of its letter, where Unicode has such a letter.
[[nodiscard]] std::string composed(std::string_view text);
/// The form in which every accent stands by itself, behind its letter.
[[nodiscard]] std::string decomposed(std::string_view text);

} // namespace tavelin
