// The extension's process entry. There is no main(): the linker makes Foundation's NSExtensionMain
// the entry, which finds the principal class by its name in Info.plist and serves FSKit from then
// on. What must be in place before the class is made is put there when the program is loaded.
#include "extension/services/mac_services.hpp"

namespace {

__attribute__((constructor)) void installPlatform() {
    tavelin::installServices(tavelin::macServices());
}

} // namespace
