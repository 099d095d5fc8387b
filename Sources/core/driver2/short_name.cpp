#include "core/driver2/short_name.hpp"

namespace tavelin::Driver2 {

std::string shortName(const InformationDictionary* info) {
    if (info != nullptr) {
        const auto name = informationText(*info, {"EXAppExtensionAttributes", "FSShortName"});
        if (name && !name->empty()) {
            return *name;
        }
    }
    return std::string(kShortName);
}

} // namespace tavelin::Driver2
