// Names in the normal forms of Unicode. A name in ASCII is the same in all of them and is never
// looked up twice.
#include "fskit/tavelin_volume.hpp"
#include "platform/error_numbers.hpp"
#include "platform/normal_forms.hpp"

namespace tavelin {

std::optional<NTFSAttributes> TavelinVolume::find(std::string_view& name, std::uint64_t directory,
                                                  std::string& memory) {
    std::optional<NTFSAttributes> record = ntfs->find(name, directory);
    if (record || !normalizesNames_ || !mayHaveOtherForms(name)) {
        return record;
    }
    for (auto* const inForm : {&composed, &decomposed}) {
        std::string form = inForm(name);
        if (form != name && (record = ntfs->find(form, directory))) {
            memory = std::move(form);
            name = memory;
            break;
        }
    }
    return record;
}

std::string_view TavelinVolume::existingName(std::string_view given, std::uint64_t directory,
                                             std::string& memory) {
    if (normalizesNames_ && mayHaveOtherForms(given)) {
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
    if (!normalizesNames_ || !mayHaveOtherForms(given)) {
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
    memory = composed(given);
    return memory;
}

} // namespace tavelin
