// Names that stand for an item although they are not the stored one: in other normal forms of
// Unicode, and in another case. A name in ASCII is the same in all forms and is never looked up
// twice for them.
#include "fskit/tavelin_volume.hpp"
#include "platform/error_numbers.hpp"
#include "platform/normal_forms.hpp"

namespace tavelin {

bool TavelinVolume::mayBeStoredOtherwise(std::string_view name) const noexcept {
    return ignoresCase_ || (normalizesNames_ && mayHaveOtherForms(name));
}

std::optional<NTFSAttributes> TavelinVolume::find(std::string_view& name, std::uint64_t directory,
                                                  std::string& memory) {
    std::optional<NTFSAttributes> record = ntfs->find(name, directory);
    if (record || !mayBeStoredOtherwise(name)) {
        return record;
    }
    std::vector<std::string> forms{std::string(name)};
    if (normalizesNames_ && mayHaveOtherForms(name)) {
        forms.insert(forms.end(), {composed(name), decomposed(name)});
    }
    // A form as it is given comes before one in another case.
    for (const bool inAnyCase : {false, true}) {
        for (std::string& form : forms) {
            const bool isKnown = !inAnyCase && form == name;
            if (isKnown || (inAnyCase && !ignoresCase_)) {
                continue;
            }
            record = inAnyCase ? ntfs->findInAnyCase(form, directory) : ntfs->find(form, directory);
            if (record) {
                memory = std::move(form);
                name = memory;
                return record;
            }
        }
    }
    return record;
}

std::string_view TavelinVolume::existingName(std::string_view given, std::uint64_t directory,
                                             std::string& memory) {
    if (mayBeStoredOtherwise(given)) {
        static_cast<void>(find(given, directory, memory));
    }
    return given;
}

std::string_view TavelinVolume::newName(std::string_view given, std::uint64_t directory,
                                        std::string& memory) {
    return renamedTo(given, directory, nullptr, memory);
}

std::string_view TavelinVolume::renamedTo(std::string_view given, std::uint64_t directory,
                                          const fskit::FSItemRef& moved, std::string& memory) {
    if (!mayBeStoredOtherwise(given)) {
        return given;
    }
    std::string_view stored = given;
    const std::optional<NTFSAttributes> present = find(stored, directory, memory);
    const bool isOther =
        present && (moved == nullptr || present->reference() != n(moved).reference);
    if (isOther) {
        return stored;
    }
    if (present && memory.empty()) {
        return given; // its name already: the composed one may be another item's
    }
    memory = normalizesNames_ ? composed(given) : std::string(given);
    return memory;
}

} // namespace tavelin
